#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <string>

namespace ZelCloud {

// The IPv4 address and port of one end of a connected socket, as httplib's
// streams report them: getpeername for the client's end, getsockname for ours.
template <typename Get>
void SocketAddress(Get get, int fd, std::string& ip, int& port) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    char text[INET_ADDRSTRLEN] = "";
    if (get(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
        inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        port = ntohs(peer.sin_port);
    }
    ip = text;
}

}  // namespace ZelCloud

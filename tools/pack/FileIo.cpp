#include "tools/pack/FileIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ZelPack {

namespace {

std::string Reason(const std::string& what, const std::string& path) {
    return "cannot " + what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& content, std::string& error) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = Reason("open", path);
        return false;
    }
    content.clear();
    char buffer[65536];
    for (;;) {
        ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count == 0) {
            break;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = Reason("read", path);
            close(fd);
            return false;
        }
        content.append(buffer, static_cast<size_t>(count));
    }
    close(fd);
    return true;
}

bool WriteWholeFile(const std::string& path, const std::string& content, std::string& error) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = Reason("create", path);
        return false;
    }
    for (size_t done = 0; done < content.size();) {
        ssize_t count = write(fd, content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            error = Reason("write", path);
            close(fd);
            return false;
        }
        done += static_cast<size_t>(count);
    }
    if (close(fd) != 0) {
        error = Reason("write", path);
        return false;
    }
    return true;
}

}  // namespace ZelPack

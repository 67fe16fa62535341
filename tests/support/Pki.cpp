#include "support/Pki.h"

#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace ZelTest {

namespace {

std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Destroyed at exit, which removes the directories.
struct Registry {
    std::mutex mutex;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Pki>> made;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

}  // namespace

Pki::Pki(const std::string& instance, const std::string& opid) : instance_(instance), opid_(opid) {
    std::string command = ShellQuote(std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh") + " " +
                          ShellQuote(dir_.path()) + " " + ShellQuote(instance) + " " +
                          ShellQuote(opid) + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        error_ = "cannot run make-pki.sh";
        return;
    }
    std::string output;
    char buffer[512];
    size_t count;
    while ((count = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output.append(buffer, count);
    }
    int status = pclose(pipe);
    ok_ = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!ok_) {
        error_ = "make-pki.sh failed: " + output;
    }
}

const Pki& Pki::Get(const std::string& instance, const std::string& opid) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    std::unique_ptr<Pki>& pki = registry().made[{instance, opid}];
    if (!pki) {
        pki = std::make_unique<Pki>(instance, opid);
    }
    return *pki;
}

void Pki::RemoveAll() {
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().made.clear();
}

ZelCloud::TlsServer::Config Pki::serverConfig(const std::string& name,
                                              const std::string& ocsp) const {
    ZelCloud::TlsServer::Config config;
    config.certFile = file(name + ".crt");
    config.keyFile = file(name + ".key");
    config.chainFile = file(name == "other-server" ? "other-ca.crt" : "ca.crt");
    config.clientCaFile = file("ca.crt");
    config.ocspFile = ocsp.empty() ? std::string() : file(ocsp);
    return config;
}

}  // namespace ZelTest

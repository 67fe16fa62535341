#include "support/Pki.h"

#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace ZelTest {

namespace {

// Destroyed at exit, which removes the directories.
std::mutex registryMutex;
std::map<std::pair<std::string, std::string>, std::unique_ptr<Pki>> registry;

}  // namespace

Pki::Pki(const std::string& instance, const std::string& opid) : instance_(instance), opid_(opid) {
    // Every argument is ours: a source path, a fresh temporary directory and plain names.
    std::string command = "'" + std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh' '" +
                          dir_.path() + "' '" + instance + "' '" + opid + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        error_ = "cannot run make-pki.sh";
        return;
    }
    std::string output;
    char buffer[512];
    for (size_t count; (count = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
        output.append(buffer, count);
    }
    int status = pclose(pipe);
    ok_ = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!ok_) {
        error_ = "make-pki.sh failed: " + output;
    }
}

const Pki& Pki::Get(const std::string& instance, const std::string& opid) {
    std::lock_guard<std::mutex> lock(registryMutex);
    std::unique_ptr<Pki>& pki = registry[{instance, opid}];
    if (!pki) {
        pki = std::make_unique<Pki>(instance, opid);
    }
    return *pki;
}

void Pki::RemoveAll() {
    std::lock_guard<std::mutex> lock(registryMutex);
    registry.clear();
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

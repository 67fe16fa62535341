#pragma once

#include <string>

#include "support/TempDir.h"
#include "tools/cloud/TlsServer.h"

namespace ZelTest {

// A throw-away PKI made by tools/pki/make-pki.sh, once per instance and
// operator id in a test process, and removed when the process ends.
class Pki {
public:
    static constexpr const char* kDefaultOpid = "FFFFFF0ACC";

    // `instance` goes into the device certificate's CN as it is, port included.
    static const Pki& Get(const std::string& instance = "zel.localhost",
                          const std::string& opid = kDefaultOpid);
    // Removes every PKI made so far; for a process about to end without exit().
    static void RemoveAll();

    // False when the script failed; error() says why.
    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }

    const std::string& dir() const { return dir_.path(); }
    std::string file(const std::string& name) const { return dir_.file(name); }
    const std::string& opid() const { return opid_; }
    // "<opid>.<instance>", the subject CN of device.crt.
    std::string deviceCommonName() const { return opid_ + "." + instance_; }
    std::string identityJson() const { return ReadFile(file("identity.json")); }
    std::string deviceJson() const { return ReadFile(file("device.json")); }

    // A server set-up from this PKI: `name` is "server", "other-server" or
    // "wrong-host"; `ocsp` the DER response file to staple ("" for none).
    ZelCloud::TlsServer::Config serverConfig(const std::string& name = "server",
                                             const std::string& ocsp = "server.ocsp.der") const;

    Pki(const std::string& instance, const std::string& opid);
    Pki(const Pki&) = delete;
    Pki& operator=(const Pki&) = delete;

private:
    TempDir dir_;
    std::string instance_;
    std::string opid_;
    bool ok_ = false;
    std::string error_;
};

}  // namespace ZelTest

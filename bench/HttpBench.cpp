// What one exchange on a new connection costs the calling thread: the TLS
// handshake with the device identity, as the agent pays it for every call
// that cannot reuse a connection. The loopback server's work runs on its own
// threads and is not counted in the CPU column.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "Core/Platform/Http.h"
#include "Core/Project/ProductIdentity.h"
#include "tools/cloud/TlsServer.h"

namespace {

using namespace Zel::Core;

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// One PKI, one server and one identity for the whole run.
struct Lab {
    std::string dir;
    ZelCloud::TlsServer server;
    std::unique_ptr<ProductIdentity> identity;
    std::string url;
    bool ok = false;

    Lab() {
        char pattern[] = "/tmp/zel-bench.XXXXXX";
        if (mkdtemp(pattern) == nullptr || !server.bind()) {
            return;
        }
        dir = pattern;
        std::string instance = "zel.localhost:" + std::to_string(server.port());
        std::string command = std::string(ZEL_SOURCE_DIR) + "/tools/pki/make-pki.sh " + dir + " " +
                              instance + " >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) {
            return;
        }
        server.http().Get("/api/v1/ping", [](const httplib::Request&, httplib::Response& res) {
            res.set_content("{}", "application/json");
        });
        ZelCloud::TlsServer::Config config;
        config.certFile = dir + "/server.crt";
        config.keyFile = dir + "/server.key";
        config.chainFile = dir + "/ca.crt";
        config.clientCaFile = dir + "/ca.crt";
        config.ocspFile = dir + "/server.ocsp.der";
        if (!server.start(config)) {
            return;
        }
        Http::Initialize(true, true);
        identity = std::make_unique<ProductIdentity>(readFile(dir + "/identity.json").c_str());
        url = "https://FFFFFF0ACC-da." + instance + "/api/v1/ping";
        ok = true;
    }
    ~Lab() {
        server.stop();
        if (!dir.empty()) {
            std::system(("rm -rf " + dir).c_str());
        }
    }
};

void BM_NewConnectionExchange(benchmark::State& state) {
    static Lab lab;
    if (!lab.ok) {
        state.SkipWithError("the loopback lab did not start");
        return;
    }
    for (auto _ : state) {
        Http::Request request;
        request.url = lab.url;
        request.identity = lab.identity.get();
        request.connectTimeoutMs = 5000;
        request.timeoutMs = 5000;
        Http::Response response;
        if (!Http::Perform(request, response) || response.status != 200) {
            state.SkipWithError("the exchange failed");
            break;
        }
        Http::Cleanup(request);
    }
}
BENCHMARK(BM_NewConnectionExchange)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// What one exchange costs the calling thread, on a new connection (the TLS
// handshake with the device identity, as the agent pays it for every call
// that cannot reuse a connection) and on a connection kept from the call
// before (as the da, sv and drmp exchanges run). The loopback server's work
// runs on its own threads and is not counted in the CPU column; CpuUs is the
// calling thread's user and system time per exchange, from getrusage.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
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
    // The client ports seen: one per connection.
    std::mutex mutex;
    std::set<int> clientPorts;

    size_t connections() {
        std::lock_guard<std::mutex> lock(mutex);
        return clientPorts.size();
    }
    void forgetConnections() {
        std::lock_guard<std::mutex> lock(mutex);
        clientPorts.clear();
    }

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
        // As the cloud does: a kept connection is never closed for its count.
        server.http().set_keep_alive_max_count(1000000);
        server.http().Get("/api/v1/ping",
                          [this](const httplib::Request& req, httplib::Response& res) {
                              std::lock_guard<std::mutex> lock(mutex);
                              clientPorts.insert(req.remote_port);
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

double ThreadCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool Exchange(Http::Request& request) {
    Http::Response response;
    return Http::Perform(request, response) && response.status == 200;
}

Http::Request PingRequest(const Lab& lab, bool reusable) {
    Http::Request request;
    request.url = lab.url;
    request.identity = lab.identity.get();
    request.connectTimeoutMs = 5000;
    request.timeoutMs = 5000;
    request.reusable = reusable;
    return request;
}

void Run(benchmark::State& state, bool reuse) {
    static Lab lab;
    if (!lab.ok) {
        state.SkipWithError("the loopback lab did not start");
        return;
    }
    // The reused connection is opened before the clock runs.
    Http::Request kept = PingRequest(lab, true);
    if (reuse && !Exchange(kept)) {
        state.SkipWithError("the first exchange failed");
        return;
    }
    lab.forgetConnections();
    double cpu = ThreadCpuSeconds();
    for (auto _ : state) {
        Http::Request fresh = PingRequest(lab, false);
        Http::Request& request = reuse ? kept : fresh;
        if (!Exchange(request)) {
            state.SkipWithError("the exchange failed");
            break;
        }
        if (!reuse) {
            Http::Cleanup(request);
        }
    }
    cpu = ThreadCpuSeconds() - cpu;
    Http::Cleanup(kept);
    state.counters["CpuUs"] =
        benchmark::Counter(cpu * 1e6 / static_cast<double>(state.iterations()));
    state.counters["Connections"] = static_cast<double>(lab.connections());
}

void BM_NewConnectionExchange(benchmark::State& state) {
    Run(state, false);
}
void BM_ReusedConnectionExchange(benchmark::State& state) {
    Run(state, true);
}
BENCHMARK(BM_NewConnectionExchange)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReusedConnectionExchange)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

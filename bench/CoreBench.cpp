// What the agent pays on its hot paths: a log line that no appender wants, a
// log line that is written, the delay rule, and decoding an identity field.
#include <benchmark/benchmark.h>
#include <json/value.h>

#include <string>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"

namespace {

constexpr const char* kLogSource = "bench/CoreBench";

using namespace Zel::Core;

// One file appender on /dev/null admitting core/state up to "info".
void configureLogger() {
    Json::Value filter;
    filter["service"] = "core";
    filter["category"] = "state";
    filter["severity"] = "info";
    Json::Value appender;
    appender["type"] = "file";
    appender["argument"] = "/dev/null";
    appender["format"] = "long";
    appender["filters"].append(filter);
    Json::Value loggers(Json::arrayValue);
    loggers.append(appender);
    Logger::Instance().terminate();
    Logger::Instance().initialize(loggers);
}

void BM_LogLineFilteredOut(benchmark::State& state) {
    configureLogger();
    for (auto _ : state) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "delaying %d.%03d seconds", 5, 236);
    }
    Logger::Instance().terminate();
}
BENCHMARK(BM_LogLineFilteredOut);

void BM_LogLineWritten(benchmark::State& state) {
    configureLogger();
    for (auto _ : state) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "delaying %d.%03d seconds", 5, 236);
    }
    Logger::Instance().terminate();
}
BENCHMARK(BM_LogLineWritten);

void BM_DelayRule(benchmark::State& state) {
    timespec now{1700000000, 999999999};
    timespec deadline{};
    uint32_t r = 0;
    for (auto _ : state) {
        ApplyDelayRule(now, deadline, 3150000, 900000, r++);
        benchmark::DoNotOptimize(deadline);
    }
}
BENCHMARK(BM_DelayRule);

void BM_Base64DecodeIdentityField(benchmark::State& state) {
    std::string pem(1800, 'k');
    std::string encoded = Base64Util::Encode(pem);
    std::string decoded;
    for (auto _ : state) {
        Base64Util::Decode(encoded, decoded);
        benchmark::DoNotOptimize(decoded);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * encoded.size()));
}
BENCHMARK(BM_Base64DecodeIdentityField);

}  // namespace

BENCHMARK_MAIN();

// zel-cloud: a local cloud for running the agent against on one machine.
#include <json/reader.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "tools/cloud/Cloud.h"

namespace {

void Usage() {
    fprintf(stderr,
            "usage: zel-cloud --pki DIR [--port N] [--control-port N] [--payload-port N]\n"
            "                 [--relay-port N] [--settings FILE.json] [--long-poll-ms N]\n"
            "                 [--duration SECONDS] [--quiet]\n");
}

bool ParseNumber(const char* text, long min, long max, long& value) {
    char* end = nullptr;
    errno = 0;
    value = strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && value >= min && value <= max;
}

bool ReadSettings(const std::string& path, Json::Value& settings) {
    std::ifstream in(path);
    if (!in) {
        fprintf(stderr, "zel-cloud: cannot read %s\n", path.c_str());
        return false;
    }
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!Json::parseFromStream(builder, in, &settings, &errors) || !settings.isObject()) {
        fprintf(stderr, "zel-cloud: %s is not a JSON object %s\n", path.c_str(), errors.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ZelCloud::CloudOptions options;
    options.controlPort = 0;
    options.payloadPort = 0;
    options.relayPort = 0;
    long duration = 0;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        long number = 0;
        if (arg == "--pki" && hasValue) {
            options.pkiDir = argv[++i];
        } else if (arg == "--port" && hasValue && ParseNumber(argv[i + 1], 0, 65535, number)) {
            options.port = static_cast<int>(number);
            ++i;
        } else if (arg == "--control-port" && hasValue &&
                   ParseNumber(argv[i + 1], 0, 65535, number)) {
            options.controlPort = static_cast<int>(number);
            ++i;
        } else if (arg == "--payload-port" && hasValue &&
                   ParseNumber(argv[i + 1], -1, 65535, number)) {
            options.payloadPort = static_cast<int>(number);
            ++i;
        } else if (arg == "--relay-port" && hasValue &&
                   ParseNumber(argv[i + 1], -1, 65535, number)) {
            options.relayPort = static_cast<int>(number);
            ++i;
        } else if (arg == "--settings" && hasValue) {
            if (!ReadSettings(argv[++i], options.settings)) {
                return 2;
            }
        } else if (arg == "--duration" && hasValue &&
                   ParseNumber(argv[i + 1], 1, 365L * 24 * 3600, number)) {
            duration = number;
            ++i;
        } else if (arg == "--long-poll-ms" && hasValue &&
                   ParseNumber(argv[i + 1], 0, 3600L * 1000, number)) {
            options.longPollMs = number;
            ++i;
        } else if (arg == "--quiet") {
            options.quiet = true;
        } else {
            Usage();
            return 2;
        }
    }
    if (options.pkiDir.empty()) {
        Usage();
        return 2;
    }

    // A device that hangs up mid-answer must not end the cloud.
    signal(SIGPIPE, SIG_IGN);

    // Block the stop signals in every thread; the main thread collects them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    ZelCloud::Cloud cloud(options);
    if (!cloud.start()) {
        fprintf(stderr, "zel-cloud: %s\n", cloud.error().c_str());
        return 1;
    }
    printf("zel-cloud: services on https://127.0.0.1:%d, control on http://127.0.0.1:%d\n",
           cloud.port(), cloud.controlPort());
    if (cloud.payloadPort() >= 0) {
        printf("zel-cloud: payloads on http://127.0.0.1:%d/payloads/\n", cloud.payloadPort());
    }
    if (cloud.relayPort() >= 0) {
        printf("zel-cloud: media relay on http://127.0.0.1:%d/streams/\n", cloud.relayPort());
    }
    printf("zel-cloud: support console on http://127.0.0.1:%d/\n", cloud.controlPort());
    fflush(stdout);

    int received = 0;
    if (duration > 0) {
        struct timespec timeout {};
        timeout.tv_sec = duration;
        received = sigtimedwait(&signals, nullptr, &timeout);
        while (received < 0 && errno == EINTR) {
            received = sigtimedwait(&signals, nullptr, &timeout);
        }
    } else {
        sigwait(&signals, &received);
    }
    cloud.stop();
    printf("zel-cloud: stopped%s\n", received > 0 ? " by signal" : "");
    return 0;
}

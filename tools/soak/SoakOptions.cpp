#include "SoakOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {
bool parseNumber(const char* text, uint64_t low, uint64_t high, uint64_t& value) {
    char* end = nullptr;
    errno = 0;
    unsigned long long parsed = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || parsed < low ||
        parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}
}  // namespace

void SoakOptions::Usage(const char* program) {
    std::fprintf(
        stderr,
        "usage: %s --identity FILE --config FILE --device FILE --control-port N\n"
        "          [--seconds N] [--sample-seconds N] [--warmup-rounds N]\n"
        "          [--update-kib N] [--rss-tolerance-kib N] [--heap-tolerance-kib N]\n"
        "          [--without sessions,commands,streams,updates,drmp]\n"
        "Runs the agent in this process against zel-cloud, driving sessions, commands,\n"
        "screen streams, updates and provisioning in rounds through the cloud's control\n"
        "interface, and samples this process's threads, descriptors, RSS and heap at the\n"
        "quiet point after a round. Exits 0 when nothing grew from the first row (after\n"
        "the warm-up) to the last, 1 when something did, 2 for a bad command line, 3 when\n"
        "a round or the agent failed, 130 when interrupted. --without leaves parts of\n"
        "the round out, to find the one that grows.\n",
        program);
}

bool SoakOptions::leaveOut(const std::string& list) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        std::string part =
            list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (part == "sessions") {
            parts.sessions = false;
        } else if (part == "commands") {
            parts.commands = false;
        } else if (part == "streams") {
            parts.streams = false;
        } else if (part == "updates") {
            parts.updates = false;
        } else if (part == "drmp") {
            parts.drmp = false;
        } else {
            return false;
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return true;
}

bool SoakOptions::parse(int argc, char** argv) {
    // Every option takes a value.
    for (int i = 1; i < argc; i += 2) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            Usage(argv[0]);
            return false;
        }
        const char* value = argv[i + 1];
        uint64_t number = 0;
        bool ok = true;
        if (arg == "--identity") {
            identityFile = value;
        } else if (arg == "--config") {
            configFile = value;
        } else if (arg == "--device") {
            deviceFile = value;
        } else if (arg == "--control-port") {
            ok = parseNumber(value, 1, 65535, number);
            controlPort = static_cast<int>(number);
        } else if (arg == "--seconds") {
            ok = parseNumber(value, 1, 7 * 24 * 3600, number);
            seconds = static_cast<unsigned>(number);
        } else if (arg == "--sample-seconds") {
            ok = parseNumber(value, 1, 24 * 3600, number);
            sampleSeconds = static_cast<unsigned>(number);
        } else if (arg == "--warmup-rounds") {
            ok = parseNumber(value, 0, 1000, number);
            warmupRounds = static_cast<unsigned>(number);
        } else if (arg == "--update-kib") {
            ok = parseNumber(value, 1, 64 * 1024, number);
            updateBytes = number * 1024;
        } else if (arg == "--rss-tolerance-kib") {
            ok = parseNumber(value, 0, 1u << 30, number);
            rssToleranceKiB = number;
        } else if (arg == "--heap-tolerance-kib") {
            ok = parseNumber(value, 0, 1u << 30, number);
            heapToleranceKiB = number;
        } else if (arg == "--without") {
            ok = leaveOut(value);
        } else {
            ok = false;
        }
        if (!ok) {
            Usage(argv[0]);
            return false;
        }
    }
    if (identityFile.empty() || configFile.empty() || deviceFile.empty() || controlPort == 0) {
        Usage(argv[0]);
        return false;
    }
    return true;
}

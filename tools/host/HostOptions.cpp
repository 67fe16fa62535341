#include "HostOptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {
void usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s --identity FILE --config FILE --device FILE [--duration SECONDS]\n"
                 "          [--test-mode] [--oem-msg TEXT]\n"
                 "Runs the agent like a television's firmware would and prints every status\n"
                 "change. Ctrl-C, SIGTERM or the end of --duration stops it cleanly.\n",
                 program);
}
}  // namespace

bool ParseHostOptions(int argc, char** argv, HostOptions& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--identity" && hasValue) {
            options.identityFile = argv[++i];
        } else if (arg == "--config" && hasValue) {
            options.configFile = argv[++i];
        } else if (arg == "--device" && hasValue) {
            options.deviceFile = argv[++i];
        } else if (arg == "--duration" && hasValue) {
            options.durationSeconds = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        } else if (arg == "--oem-msg" && hasValue) {
            options.hasOemMsg = true;
            options.oemMsg = argv[++i];
        } else if (arg == "--test-mode") {
            options.testMode = true;
        } else {
            usage(argv[0]);
            return false;
        }
    }
    if (options.identityFile.empty() || options.configFile.empty() || options.deviceFile.empty()) {
        usage(argv[0]);
        return false;
    }
    return true;
}

bool ReadTextFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "zel-host: cannot read %s\n", path.c_str());
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    content = text.str();
    return true;
}

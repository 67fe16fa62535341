#include "HostOptions.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {
void usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s --identity FILE --config FILE --device FILE [--duration SECONDS]\n"
                 "          [--test-mode] [--oem-msg TEXT] [--session] [--session-digits N]\n"
                 "          [--update-permission none|download|confirm] [--update-file FILE]\n"
                 "Runs the agent like a television's firmware would and prints every status\n"
                 "change. Ctrl-C, SIGTERM or the end of --duration stops it cleanly.\n"
                 "  --session           open a remote-support session once the agent can\n"
                 "  --session-digits N  the same with a session code of N digits (4 to 16)\n"
                 "  --update-permission answer an offered update so (else leave it waiting)\n"
                 "  --update-file FILE  take updates from this local payload file\n"
                 "SIGUSR1, or typing s and Enter on a terminal, opens a session when there is\n"
                 "none and closes the one there is otherwise.\n",
                 program);
}

// The agent judges the range itself; only a plain decimal number is asked for.
bool parseUnsigned(const char* text, unsigned& value) {
    char* end = nullptr;
    errno = 0;
    unsigned long parsed = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-' || parsed > UINT32_MAX) {
        return false;
    }
    value = static_cast<unsigned>(parsed);
    return true;
}
bool parsePermission(const std::string& text, unsigned& permission) {
    static const char* const names[] = {"none", "download", "confirm"};
    for (unsigned value = 0; value < 3; ++value) {
        if (text == names[value]) {
            permission = value;
            return true;
        }
    }
    return false;
}
}  // namespace

bool ParseHostOptions(int argc, char** argv, HostOptions& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        unsigned number = 0;
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
        } else if (arg == "--session-digits" && hasValue && parseUnsigned(argv[i + 1], number)) {
            options.openSession = true;
            options.hasSessionCodeDigits = true;
            options.sessionCodeDigits = number;
            ++i;
        } else if (arg == "--update-permission" && hasValue &&
                   parsePermission(argv[i + 1], options.updatePermission)) {
            ++i;
        } else if (arg == "--update-file" && hasValue) {
            options.updateFile = argv[++i];
        } else if (arg == "--session") {
            options.openSession = true;
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

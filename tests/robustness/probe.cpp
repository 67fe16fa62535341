// A stand-in for the firmware that sees nothing but zel.h: runs in the
// directory given as its argument and answers each command on stdin with one
// line on stdout: "init IDENTITY CONFIG DEVICE" (files), "term",
// "factory-reset", "factory-reset-offline CONFIG", "status", "oem TEXT",
// "session" (ZelSessionInit(0)), "permission N" (ZelSetSoftwareUpdatePermission), "drmp"
// (ZelCheckForDrmpUpdate), "wait-update N" (until the update state is N; "any": until there is
// one, answering "update STATE 0") and "wait-state N",
// which answers "state N <ms since the last term or factory-reset>". "exit" and the end of stdin
// return from main at once, whatever the agent is doing, as a host may.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "zel.h"

// A runaway allocation must end this process, not the machine's memory.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_options() {
    return "hard_rss_limit_mb=4096";
}
#elif defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() {
    return "hard_rss_limit_mb=4096";
}
#endif

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

uint32_t currentState() {
    ZelStatus status{};
    ZelGetStatus(ZelStatusMethodNow, &status);
    uint32_t state = status.state;
    ZelFreeStatus(&status);
    return state;
}

}  // namespace

int main(int argc, char** argv) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    rlimit limit{4096ul << 20, 4096ul << 20};
    setrlimit(RLIMIT_AS, &limit);
#endif
    // A configuration without a usable persistent path leaves the files here.
    if (argc != 2 || chdir(argv[1]) != 0) {
        std::cerr << "usage: robustness_probe DIRECTORY" << std::endl;
        return 2;
    }
    auto mark = std::chrono::steady_clock::now();
    std::string line;
    while (std::getline(std::cin, line) && line != "exit") {
        std::string command, a, b, c;
        std::istringstream words(line);
        words >> command >> a >> b >> c;
        ZelResult result = 0;
        if (command == "init") {
            result = ZelInit(readFile(a).c_str(), readFile(b).c_str(), readFile(c).c_str());
        } else if (command == "term" || command == "factory-reset") {
            mark = std::chrono::steady_clock::now();
            result = command == "term" ? ZelTerm() : ZelFactoryReset();
        } else if (command == "factory-reset-offline") {
            result = ZelFactoryResetOffline(readFile(a).c_str());
        } else if (command == "oem") {
            result = ZelSetOemMsg(line.substr(line.find(' ') + 1).c_str());
        } else if (command == "session") {
            result = ZelSessionInit(0);
        } else if (command == "drmp") {
            result = ZelCheckForDrmpUpdate();
        } else if (command == "permission") {
            result = ZelSetSoftwareUpdatePermission(static_cast<uint32_t>(std::stoul(a)));
        } else if (command == "wait-update") {
            bool any = a == "any";
            uint32_t wanted = any ? 0 : static_cast<uint32_t>(std::stoul(a));
            for (;;) {
                ZelStatus status{};
                ZelGetStatus(ZelStatusMethodNow, &status);
                uint32_t state = status.updateState;
                ZelFreeStatus(&status);
                if (any ? state != ZelSoftwareUpdateStateNotAvailable : state == wanted) {
                    a = std::to_string(state);
                    break;
                }
                ZelGetStatus(ZelStatusMethodWaitForChange, &status);
                ZelFreeStatus(&status);
            }
            command = "update " + a;
        } else if (command == "status") {
            result = currentState();
        } else if (command == "wait-state") {
            uint32_t wanted = static_cast<uint32_t>(std::stoul(a));
            while (currentState() != wanted) {
                ZelStatus status{};
                ZelGetStatus(ZelStatusMethodWaitForChange, &status);
                ZelFreeStatus(&status);
            }
            auto spent = std::chrono::steady_clock::now() - mark;
            command = "state " + a;
            result = static_cast<ZelResult>(
                std::chrono::duration_cast<std::chrono::milliseconds>(spent).count());
        } else {
            command = "unknown " + command;
        }
        std::cout << command << " " << result << std::endl;
    }
    return 0;
}

#pragma once

#include <string>

// What zel-host was asked to do, from its command line.
struct HostOptions {
    std::string identityFile;
    std::string configFile;
    std::string deviceFile;
    unsigned durationSeconds = 0;  // 0: run until Ctrl-C or SIGTERM
    bool testMode = false;
    bool hasOemMsg = false;
    std::string oemMsg;
    bool openSession = false;           // open a remote-support session once the agent can
    bool hasSessionCodeDigits = false;  // else as many digits as the configuration says
    unsigned sessionCodeDigits = 0;
    unsigned updatePermission = 3;  // ZelSoftwareUpdatePermission*; 3: never answer
    std::string updateFile;         // a local payload file to take updates from
};

// False (after printing why) when the command line cannot be used.
bool ParseHostOptions(int argc, char** argv, HostOptions& options);

// The whole content of a file; false when it cannot be read.
bool ReadTextFile(const std::string& path, std::string& content);

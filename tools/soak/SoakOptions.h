#pragma once

#include <cstdint>
#include <string>

#include "SoakParts.h"

// What zel-soak was asked to do, from its command line.
class SoakOptions {
public:
    // False (after printing why) when the command line cannot be used.
    bool parse(int argc, char** argv);

    std::string identityFile;
    std::string configFile;
    std::string deviceFile;
    int controlPort = 0;
    unsigned seconds = 600;       // measured run, after the warm-up
    unsigned sampleSeconds = 60;  // a row at the first quiet point after each such period
    unsigned warmupRounds = 2;
    uint64_t updateBytes = 4u << 20;
    SoakParts parts;
    // Growth from the first row to the last that still passes; threads and
    // descriptors must come back exactly.
    uint64_t rssToleranceKiB = 512;
    uint64_t heapToleranceKiB = 128;

private:
    static void Usage(const char* program);
    // "streams,updates": those parts left out; false for an unknown name.
    bool leaveOut(const std::string& list);
};

#pragma once

#include <string>

#include "tools/pack/Pack.h"

namespace ZelPack {

// What `zel-pack pack` was asked to make: the input files, the outputs and
// every claim value that does not come from a file.
struct PackRequest {
    std::string payloadFile;
    std::string signKeyFile;
    std::string signCertFile;
    std::string intermediateFile;
    std::string deviceCertFile;
    std::string tokenOut;
    std::string payloadOut;  // the encrypted blocks, for a network update
    std::string localOut;    // the local payload file
    Options options;         // the PEM texts stay empty here
};

struct CommandLine {
    enum class Command { Help, Pack, Inspect };
    Command command = Command::Help;
    PackRequest pack;
    std::string inspectFile;
};

// False with the reason when the arguments cannot be used.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& line, std::string& error);

const char* Usage();

}  // namespace ZelPack

// zel-pack: the update publisher's tool. It turns a payload into what a
// device verifies (a signed token and encrypted blocks) and shows what a
// token or a local payload file holds.
#include <cstdio>

#include "tools/pack/CommandLine.h"
#include "tools/pack/InspectCommand.h"
#include "tools/pack/PackCommand.h"

int main(int argc, char** argv) {
    ZelPack::CommandLine line;
    std::string error;
    if (!ZelPack::ParseCommandLine(argc, argv, line, error)) {
        std::fprintf(stderr, "zel-pack: %s (zel-pack --help shows the usage)\n", error.c_str());
        return 2;
    }
    switch (line.command) {
        case ZelPack::CommandLine::Command::Pack:
            return ZelPack::RunPack(line.pack);
        case ZelPack::CommandLine::Command::Inspect:
            return ZelPack::RunInspect(line.inspectFile);
        case ZelPack::CommandLine::Command::Help:
            break;
    }
    std::fputs(ZelPack::Usage(), stdout);
    return 0;
}

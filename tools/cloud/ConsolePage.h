#pragma once

#include <httplib.h>

#include <cstddef>

namespace ZelCloud {

// The support console: a page for a support agent, served by the control
// interface at "/" and "/console", its script and style under "/console/".
// The files live in tools/cloud/console/ and are built into the binary
// (console/Embed.cmake), so the console needs nothing on disk or online.
class ConsolePage {
public:
    struct File {
        const char* name;  // "index.html", "console.js", ...
        const char* type;  // its Content-Type
        const unsigned char* bytes;
        size_t size;
    };

    static void route(httplib::Server& server);
    // Null for a name the console does not have.
    static const File* Find(const char* name);

private:
    // Defined in the source that console/Embed.cmake writes.
    static const File kFiles[];
    static const size_t kCount;
};

}  // namespace ZelCloud

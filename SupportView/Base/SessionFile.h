#pragma once

#include <string>

namespace Zel {
namespace Sv {

// The session kept across a restart: base name "session" in the persistent
// directory, body {"code": ..., "token": ...}.
class SessionFile {
public:
    static const char* const kBaseName;

    static std::string Format(const std::string& code, const std::string& token);
    // False unless the text is an object with a usable code and token.
    static bool Parse(const std::string& text, std::string& code, std::string& token);
};

}  // namespace Sv
}  // namespace Zel

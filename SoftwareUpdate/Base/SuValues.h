#pragma once

#include <string>

namespace Zel {
namespace Su {

// The update values kept across restarts: base name "suValues" in the
// persistent directory, body {"location", "metadata", "installed"}.
struct SuValues {
    static const char* const kBaseName;

    std::string location;   // the host's local payload file
    std::string metadata;   // the token the cloud offered
    std::string installed;  // hash of the update last found installed

    std::string marshal() const;
    // Takes each member that is there and is text; says which were not.
    // False when the text is no JSON object at all.
    bool unmarshal(const std::string& text);

    bool operator==(const SuValues& other) const {
        return location == other.location && metadata == other.metadata &&
               installed == other.installed;
    }
};

}  // namespace Su
}  // namespace Zel

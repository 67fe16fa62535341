#pragma once

#include <string>

#include "SoftwareUpdate/Platform/UpdateMetadata.h"

namespace Zel {
namespace Su {

// Checks an update's metadata token against the device, in a fixed order,
// and fills the record. The first check that fails logs why and records the
// short reason; nothing after it runs.
class MetadataToken {
public:
    static bool Verify(const std::string& token, bool local, const ProductKit& kit,
                       UpdateMetadata& metadata, FailureRecord& failure);

    // The version and hash claims without any check, to recognise an update
    // already installed before verifying it again. False when unreadable.
    static bool Peek(const std::string& token, std::string& version, std::string& hash);
};

}  // namespace Su
}  // namespace Zel

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Drmp/Base/DrmpPersistentValues.h"

namespace Zel {
namespace Drmp {

// One install or delete the cloud asks for.
struct DrmpOperation {
    std::string name;
    std::string operation;  // "install", "delete", or anything else the cloud sent
    std::string id;
    std::string encryptionType;
    uint32_t unencryptedSize = 0;
    std::string value;  // base64 of the object's bytes
};

// Applies the body of a 2xx "drmp" answer to the values. It decides only
// from its arguments, so every rule can be tried without a cloud.
class DrmpAnswer {
public:
    // More operations than this in one answer are dropped.
    static constexpr size_t kMaxOperations = 64;

    // "idToken" of a token answer; false when there is none usable.
    static bool ApplyToken(const std::string& body, DrmpPersistentValues& values);
    // A work answer: sequence number, delays, the status merged; the
    // operations to carry out, in order. False when the body is no object.
    static bool ApplyWork(const std::string& body, DrmpPersistentValues& values,
                          std::vector<DrmpOperation>& operations, bool& statusChanged);
    // The number of an "encryptionType" text; false for an unknown one.
    static bool EncryptionTypeFromText(const std::string& text, uint32_t& type);
};

}  // namespace Drmp
}  // namespace Zel

#pragma once

#include <string>

namespace ZelPack {

// True for what Inspect reads as a local payload file: it starts with the
// token's length, not with the token's base64 text.
bool IsLocalPayloadFile(const std::string& tokenOrFile);

}  // namespace ZelPack

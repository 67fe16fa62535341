#pragma once

#include <string>

namespace ZelPack {

// Standard base64 with padding, as every segment of a token and the "key"
// claim are written.
std::string Base64Encode(const std::string& bytes);

// The strict reverse of Base64Encode: no line breaks, no missing padding, no
// other alphabet. False (and `bytes` empty) for anything else.
bool Base64Decode(const std::string& text, std::string& bytes);

}  // namespace ZelPack

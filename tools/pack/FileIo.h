#pragma once

#include <string>

namespace ZelPack {

// The whole content of a file; false with a reason naming the path.
bool ReadWholeFile(const std::string& path, std::string& content, std::string& error);

// Replaces the file's content; false with a reason naming the path.
bool WriteWholeFile(const std::string& path, const std::string& content, std::string& error);

}  // namespace ZelPack

#pragma once

#include <string>

namespace ZelPack {

// `zel-pack inspect`: 0 for a complete token whose signature verifies, 1
// otherwise.
int RunInspect(const std::string& path);

}  // namespace ZelPack

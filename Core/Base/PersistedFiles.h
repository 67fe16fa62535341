#pragma once

#include <string>

namespace Zel {
namespace Core {

// Removes every file in `dir` that carries a persisted state's name
// (base_version_md5), whichever service wrote it. Used by factory resets.
void DropPersistedFiles(const std::string& dir);

}  // namespace Core
}  // namespace Zel

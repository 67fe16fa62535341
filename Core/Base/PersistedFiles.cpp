#include "Core/Base/PersistedFiles.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/PersistedFiles";

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// base "_" version "_" 32 lowercase hex digits, the base without "_".
bool isPersistedName(const std::string& name) {
    size_t first = name.find('_');
    size_t second = first == std::string::npos ? first : name.find('_', first + 1);
    if (first == 0 || second == std::string::npos || second == first + 1 ||
        name.size() != second + 33) {
        return false;
    }
    for (size_t i = first + 1; i < second; ++i) {
        if (name[i] < '0' || name[i] > '9') {
            return false;
        }
    }
    for (size_t i = second + 1; i < name.size(); ++i) {
        char c = name[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}
}  // namespace

void DropPersistedFiles(const std::string& dir) {
    std::string path = dir.empty() || dir.back() == '/' ? dir : dir + "/";
    std::unique_ptr<DIR, DirCloser> handle(opendir(path.c_str()));
    if (!handle) {
        return;
    }
    while (dirent* entry = readdir(handle.get())) {
        std::string name = entry->d_name;
        if (!isPersistedName(name)) {
            continue;
        }
        struct stat info {};
        std::string file = path + name;
        if (stat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) && unlink(file.c_str()) != 0) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Error Deleting File.");
        }
    }
}

}  // namespace Core
}  // namespace Zel

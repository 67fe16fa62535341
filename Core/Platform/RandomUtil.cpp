#include "Core/Platform/RandomUtil.h"

#include <cstdio>
#include <memory>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Platform/RandomUtil";

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
}  // namespace

namespace Zel {
namespace Core {

bool RandomUtil::GetBytes(void* buf, unsigned n) {
    return ReadBytes("/dev/urandom", buf, n);
}

bool RandomUtil::ReadBytes(const char* path, void* buf, unsigned n) {
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "rb"));
    if (!file) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                "Problem with %s, unable to open for reading.", path);
        return false;
    }
    size_t wanted = n;
    size_t got = wanted == 0 ? 0 : std::fread(buf, 1, wanted, file.get());
    if (got != wanted) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                "Problem with %s, read %zu bytes instead of %zu", path, got, wanted);
        return false;
    }
    return true;
}

}  // namespace Core
}  // namespace Zel

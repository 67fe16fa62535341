#include "Drmp/Project/EmulatedSecureCore.h"

#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "Core/Platform/HexUtil.h"

namespace Zel {
namespace Drmp {

namespace {

struct Core {
    std::mutex mutex;
    uint32_t index = 0;
    std::vector<uint8_t> ulpk;
    bool ulpkReadable = false;
    std::vector<std::string> names;
    std::map<std::string, std::vector<uint8_t>> objects;
};

// Never destroyed: the provisioning threads may use it until the process ends.
Core& core() {
    static Core* instance = new Core;
    return *instance;
}

std::string trimmed(const std::string& text) {
    size_t first = text.find_first_not_of(" \t");
    size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

int32_t open() {
    return 0;
}

int32_t close() {
    return 0;
}

int32_t onProvision(const uint8_t* object, uint32_t size, const char* name, const char*, uint32_t,
                    uint32_t* returned) {
    std::lock_guard<std::mutex> lock(core().mutex);
    core().objects[name] = std::vector<uint8_t>(object, object + size);
    *returned = size;
    return 0;
}

int32_t objectDelete(const char* name, uint32_t) {
    std::lock_guard<std::mutex> lock(core().mutex);
    return core().objects.erase(name) == 1 ? 0 : 1;
}

int32_t getObjectName(char* buffer, uint32_t size, uint32_t* count, uint32_t) {
    std::lock_guard<std::mutex> lock(core().mutex);
    if (size < ZEL_SECURE_NAME_SLOTS * ZEL_SECURE_NAME_SLOT_SIZE) {
        return 1;
    }
    *count = 0;
    for (const std::string& name : core().names) {
        if (*count == ZEL_SECURE_NAME_SLOTS) {
            break;
        }
        std::strncpy(buffer + *count * ZEL_SECURE_NAME_SLOT_SIZE, name.c_str(),
                     ZEL_SECURE_NAME_SLOT_SIZE);
        ++*count;
    }
    return 0;
}

// The emulated core has no identity configuration of its own.
int32_t getIdConfig(uint8_t*, uint32_t* length) {
    *length = 0;
    return 0;
}

int32_t getUlpk(uint32_t* index, uint8_t* buffer, uint32_t* length) {
    std::lock_guard<std::mutex> lock(core().mutex);
    if (!core().ulpkReadable || core().ulpk.size() > *length) {
        return 1;
    }
    *index = core().index;
    std::memcpy(buffer, core().ulpk.data(), core().ulpk.size());
    *length = static_cast<uint32_t>(core().ulpk.size());
    return 0;
}

}  // namespace

void EmulatedSecureCore::Configure(uint32_t ulpkIndex, const std::string& ulpkHex,
                                   const std::string& objectNames) {
    std::lock_guard<std::mutex> lock(core().mutex);
    core().index = ulpkIndex;
    core().ulpkReadable = Zel::Core::HexUtil::Decode(ulpkHex, core().ulpk);
    core().names.clear();
    size_t start = 0;
    while (start <= objectNames.size()) {
        size_t comma = objectNames.find(',', start);
        std::string name = trimmed(objectNames.substr(
            start, comma == std::string::npos ? std::string::npos : comma - start));
        if (!name.empty()) {
            core().names.push_back(name);
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
}

DrmpCustom::Functions EmulatedSecureCore::Functions() {
    DrmpCustom::Functions functions;
    functions.open = open;
    functions.close = close;
    functions.onProvision = onProvision;
    functions.objectDelete = objectDelete;
    functions.getObjectName = getObjectName;
    functions.getIdConfig = getIdConfig;
    functions.getDeviceId = getIdConfig;
    functions.getUlpk = getUlpk;
    return functions;
}

bool EmulatedSecureCore::Holds(const std::string& name) {
    std::lock_guard<std::mutex> lock(core().mutex);
    return core().objects.count(name) == 1;
}

}  // namespace Drmp
}  // namespace Zel

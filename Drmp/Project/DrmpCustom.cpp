#include "Drmp/Project/DrmpCustom.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "Core/Platform/Logger.h"
#include "Drmp/Base/DrmpConfig.h"
#include "Drmp/Project/EmulatedSecureCore.h"

namespace Zel {
namespace Drmp {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/DrmpCustom";
constexpr uint32_t kNameBufferSize = ZEL_SECURE_NAME_SLOTS * ZEL_SECURE_NAME_SLOT_SIZE;
constexpr uint32_t kUlpkBufferSize = 1024;
constexpr uint32_t kNameKind = 3;
constexpr gid_t kMarkerGroup = 622;

struct Binding {
    std::mutex mutex;
    DrmpCustom::Functions functions;
    std::string marker;
    // Libraries stay loaded: a thread may still be inside one.
    std::map<std::string, DrmpCustom::Functions> loaded;
};

Binding& binding() {
    static Binding* instance = new Binding;
    return *instance;
}

template <typename T>
T lookup(void* handle, const char* name) {
    T function = reinterpret_cast<T>(dlsym(handle, name));
    if (function == nullptr) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityError, "%s null : ", name);
    }
    return function;
}

DrmpCustom::Functions load(const std::string& path) {
    DrmpCustom::Functions functions;
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityError, "can't dlopen : %s (%s)", path.c_str(),
                why != nullptr ? why : "");
        return functions;
    }
    functions.open = lookup<ZelSecureOpen>(handle, "DrmpSecureOpen");
    functions.close = lookup<ZelSecureClose>(handle, "DrmpSecureClose");
    functions.onProvision = lookup<ZelSecureOnProvision>(handle, "DrmpSecureOnProvision");
    functions.objectDelete = lookup<ZelSecureObjectDelete>(handle, "DrmpSecureObjectDelete");
    functions.getObjectName = lookup<ZelSecureGetObjectName>(handle, "DrmpSecureGetObjectName");
    functions.getIdConfig = lookup<ZelSecureGetIDConfig>(handle, "DrmpSecureGetIDConfig");
    functions.getDeviceId = lookup<ZelSecureGetDeviceID>(handle, "DrmpSecureGetDeviceID");
    functions.getUlpk = lookup<ZelSecureGetUlpk>(handle, "DrmpSecureGetUlpk");
    return functions;
}

unsigned fail(const char* message) {
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError, "%s", message);
    return 1;
}

// Creates the marker, or only touches it when it is there, without a shell:
// its path comes from the configuration.
void markReady(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (fd < 0) {
        ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError, "cannot create %s", path.c_str());
        return;
    }
    futimens(fd, nullptr);
    if (fchmod(fd, 0660) != 0 || fchown(fd, static_cast<uid_t>(-1), kMarkerGroup) != 0) {
        ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityWarning, "cannot set the mode of %s",
                path.c_str());
    }
    close(fd);
}
}  // namespace

void DrmpCustom::Configure(const DrmpConfig& config) {
    Binding& b = binding();
    std::lock_guard<std::mutex> lock(b.mutex);
    b.marker = config.getReadyMarkerFile();
    if (config.getEnableEmulatedSecureCore()) {
        EmulatedSecureCore::Configure(config.getEmulatedUlpkIndex(), config.getEmulatedUlpk(),
                                      config.getEmulatedSupportedObjectNames());
        b.functions = EmulatedSecureCore::Functions();
        return;
    }
    auto found = b.loaded.find(config.getSecureLibraryPath());
    if (found == b.loaded.end()) {
        found = b.loaded.emplace(config.getSecureLibraryPath(), load(config.getSecureLibraryPath()))
                    .first;
    }
    b.functions = found->second;
}

DrmpCustom::Functions DrmpCustom::current() {
    std::lock_guard<std::mutex> lock(binding().mutex);
    return binding().functions;
}

unsigned DrmpCustom::DrmpSecureInitialize() {
    Functions f = current();
    return f.open != nullptr && f.open() == 0 ? 0 : fail("DrmpSecureOpen fail \n");
}

unsigned DrmpCustom::DrmpSecureFinalize() {
    Functions f = current();
    return f.close != nullptr && f.close() == 0 ? 0 : fail("DrmpSecureClose fail \n");
}

unsigned DrmpCustom::InstallObject(const std::string& name, const std::string& id,
                                   const std::vector<uint8_t>& data, unsigned,
                                   EncryptionType type) {
    if (data.empty()) {
        return fail("objectSize is 0\n");
    }
    if (type == EncryptionNone) {
        return fail("encryptionType is not correct\n");
    }
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo,
            "InstallObject name:%s id:%s objectSize:%d encryptionType:%d\n", name.c_str(),
            id.c_str(), static_cast<int>(data.size()), static_cast<int>(type));
    // The library's shared memory: exactly the object's size.
    std::unique_ptr<uint8_t[]> shared(new uint8_t[data.size()]);
    std::memcpy(shared.get(), data.data(), data.size());
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "provision object size in share memory: %u\n",
            static_cast<unsigned>(data.size()));
    Functions f = current();
    uint32_t returned = 0;
    int32_t result = f.onProvision == nullptr
                         ? -1
                         : f.onProvision(shared.get(), static_cast<uint32_t>(data.size()),
                                         name.c_str(), id.c_str(), type, &returned);
    if (result != 0) {
        ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError,
                "DrmpSecureOnProvision() fail, errno = %x\n", static_cast<unsigned>(result));
        return 1;
    }
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "u32RetLen = %d\n",
            static_cast<int>(returned));
    return 0;
}

unsigned DrmpCustom::DeleteObject(const std::string& name) {
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "DeleteObject  name:%s \n", name.c_str());
    Functions f = current();
    if (f.objectDelete == nullptr || f.objectDelete(name.c_str(), 0) != 0) {
        return fail("DrmpSecureObjectDelete fail \n");
    }
    return 0;
}

unsigned DrmpCustom::GetSupportedObjectNames(std::list<std::string>& names) {
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityDebug, "u32ObjNameSuppot: %x\n", kNameKind);
    std::unique_ptr<char[]> buffer(new char[kNameBufferSize]());
    uint32_t count = 0;
    Functions f = current();
    if (f.getObjectName == nullptr ||
        f.getObjectName(buffer.get(), kNameBufferSize, &count, kNameKind) != 0) {
        return fail("DrmpSecureGetObjectName fail \n");
    }
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityDebug, "ui32ObjNum: %d \n", static_cast<int>(count));
    // A library that claims more names than slots gets what the slots hold.
    for (uint32_t slot = 0; slot < count && slot < ZEL_SECURE_NAME_SLOTS; ++slot) {
        const char* text = buffer.get() + slot * ZEL_SECURE_NAME_SLOT_SIZE;
        names.emplace_back(text, strnlen(text, ZEL_SECURE_NAME_SLOT_SIZE));
    }
    return 0;
}

unsigned DrmpCustom::RetIDConfig(char* buffer, unsigned* length) {
    Functions f = current();
    uint32_t size = *length;
    if (f.getIdConfig == nullptr || f.getIdConfig(reinterpret_cast<uint8_t*>(buffer), &size) != 0) {
        return fail("DrmpSecureGetIDConfig fail \n");
    }
    *length = size;
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityDebug, "Get ID config length: 0x%x \n", size);
    return 0;
}

unsigned DrmpCustom::GetDeviceID(char* buffer, unsigned* length) {
    Functions f = current();
    uint32_t size = *length;
    if (f.getDeviceId == nullptr || f.getDeviceId(reinterpret_cast<uint8_t*>(buffer), &size) != 0) {
        return fail("DrmpSecureGetIDConfig fail \n");
    }
    *length = size;
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityDebug, "Get ID config length: 0x%x \n", size);
    return 0;
}

unsigned DrmpCustom::GetUlpk(int& index, std::vector<uint8_t>& ulpk) {
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[kUlpkBufferSize]());
    uint32_t length = kUlpkBufferSize;
    uint32_t keyIndex = 0;
    Functions f = current();
    if (f.getUlpk == nullptr || f.getUlpk(&keyIndex, buffer.get(), &length) != 0 ||
        length > kUlpkBufferSize) {
        return fail("DrmpSecureGetUlpk fail \n");
    }
    ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityDebug, "u32UlpkLen: %d, pu8UlpkBuf: \n",
            static_cast<int>(length));
    ulpk.assign(buffer.get(), buffer.get() + length);
    index = static_cast<int>(keyIndex);
    return 0;
}

unsigned DrmpCustom::UpdateObjectStatus(const std::list<ObjectStatus>& statuses) {
    std::string marker;
    {
        std::lock_guard<std::mutex> lock(binding().mutex);
        marker = binding().marker;
    }
    for (const ObjectStatus& status : statuses) {
        ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "name: %s , state: %d \n",
                status.name.c_str(), status.state);
        switch (status.state) {
            case ObjectStateAvailable:
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo,
                        "get state ObjectStateAvailable \n");
                markReady(marker);
                break;
            case ObjectStatePending:
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "get state ObjectStatePending \n");
                break;
            case ObjectStateNotAvailable:
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo,
                        "get state ObjectStateNotAvailable \n");
                break;
            default:
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityInfo, "get state other \n");
                break;
        }
    }
    return 0;
}

}  // namespace Drmp
}  // namespace Zel

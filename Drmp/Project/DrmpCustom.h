#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "zel_secure.h"

namespace Zel {
namespace Drmp {

class DrmpConfig;

// The only door to the secure-object library: installs and deletes objects,
// lists the names the device supports, reads its identity and unique key,
// and publishes object states. The library is bound at run time, or the
// emulated secure core of a development device answers instead. Results are
// 0 for success and 1 for failure.
class DrmpCustom {
public:
    enum EncryptionType : uint32_t {
        EncryptionNone = 0,
        Encryption3des = 0x1,
        EncryptionAes = 0x2,
        EncryptionRsa = 0x4,
        EncryptionCustom = 0x100,
        Encryption3desUr = 0x8001,
        EncryptionAesUr = 0x8002,
        EncryptionRsaUr = 0x8004,
        EncryptionCustomUr = 0x8100,
    };
    enum ObjectState : int {
        ObjectStateAvailable = 1,
        ObjectStatePending = 2,
        ObjectStateNotAvailable = 3,
    };
    struct ObjectStatus {
        std::string name;
        int state = ObjectStatePending;
    };

    // The functions every call goes through.
    struct Functions {
        ZelSecureOpen open = nullptr;
        ZelSecureClose close = nullptr;
        ZelSecureOnProvision onProvision = nullptr;
        ZelSecureObjectDelete objectDelete = nullptr;
        ZelSecureGetObjectName getObjectName = nullptr;
        ZelSecureGetIDConfig getIdConfig = nullptr;
        ZelSecureGetDeviceID getDeviceId = nullptr;
        ZelSecureGetUlpk getUlpk = nullptr;
    };

    // Emulated core or library, as the configuration says; the library is
    // loaded once per path and kept.
    static void Configure(const DrmpConfig& config);

    static unsigned DrmpSecureInitialize();
    static unsigned DrmpSecureFinalize();
    static unsigned InstallObject(const std::string& name, const std::string& id,
                                  const std::vector<uint8_t>& data, unsigned unencryptedSize,
                                  EncryptionType type);
    static unsigned DeleteObject(const std::string& name);
    static unsigned GetSupportedObjectNames(std::list<std::string>& names);
    static unsigned RetIDConfig(char* buffer, unsigned* length);
    static unsigned GetDeviceID(char* buffer, unsigned* length);
    static unsigned GetUlpk(int& index, std::vector<uint8_t>& ulpk);
    static unsigned UpdateObjectStatus(const std::list<ObjectStatus>& statuses);

private:
    static Functions current();
};

}  // namespace Drmp
}  // namespace Zel

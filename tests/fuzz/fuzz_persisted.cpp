// What the persistent directory hands the agent: entry names (one a line)
// through the version rules, and file contents through every reader of a
// persisted state (the core values, the token file, the timer file).
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "Core/Base/DaTimer.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel::Core;
    std::string text(reinterpret_cast<const char*>(data), size);

    std::vector<std::string> names;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        names.push_back(line);
        FileUtil::parseVersion(line);
        FileUtil::parseHash(line);
    }
    FileUtil::getVersion(names);
    FileUtil::getLatestFile(names);

    PersistentValues values(nullptr, nullptr, nullptr);
    values.unmarshal(text);
    std::string marshalled;
    values.marshal(marshalled);
    PersistentBase::IsUsableToken(text);
    timespec lastCall{};
    DaTimer::Parse(text, lastCall);
    return 0;
}

// A task's command request document, run through the command framework with
// every built-in command registered. The clock is never set.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Core/Platform/JsonUtil.h"
#include "SupportView/Base/CommandExecutor.h"
#include "SupportView/Base/CommandManager.h"
#include "SupportView/Platform/Time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Zel;
    static bool ready = [] {
        Sv::Time::SetClockSetter([](const timespec&) { return 0; });
        Sv::CommandManager::Instance().initialize("FFFFFF0ACC", "zel.localhost", "id", "model",
                                                  "brand", "esn", "00:11:22:33:44:55", "1.0");
        return true;
    }();
    (void)ready;
    Json::Value batch;
    std::string text(reinterpret_cast<const char*>(data), size);
    if (!Core::JsonUtil::Parse(text, batch)) {
        return 0;
    }
    Json::Value answer;
    Sv::CommandExecutor::processCommands(batch, answer);
    // The answer goes out in member order; inputs echoed into it may carry an order of their own.
    Core::JsonUtil::CompactOrdered(answer);
    return 0;
}

#include "Core/Project/DeviceValues.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using Zel::Core::CoreConfig;
using Zel::Core::DeviceValues;
using Zel::Core::FileUtil;
using ZelTest::LogCapture;
using ZelTest::TempDir;

using Zel::Core::JsonUtil;

namespace {

// No vendor plug-in in this process: these are the machine's own values.
const bool kNoPlugin = setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1) == 0;

std::string firstLineOf(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string simulationConfig(const TempDir& dir, const char* initial) {
    Json::Value root;
    root["core"]["persistentPath"] = dir.path();
    root["core"]["enableSwVersionSimulation"] = true;
    if (initial != nullptr) {
        root["core"]["initialSimulatedSwVersion"] = initial;
    }
    return JsonUtil::Compact(root);
}

TEST(DeviceValuesTest, MachineDefaults) {
    DeviceValues values(nullptr, nullptr);
    std::string machineId = firstLineOf("/etc/machine-id");
    if (machineId.empty()) {
        machineId = firstLineOf("/var/lib/dbus/machine-id");
    }
    EXPECT_EQ(machineId.empty() ? "Unknown" : machineId, values.getId());
    EXPECT_EQ(values.getId(), values.getEsn());

    // The standard build's placeholder: the working directory.
    char cwd[1024];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
    EXPECT_EQ(cwd, values.getModel());
    EXPECT_EQ(cwd, values.getSubModel());

    EXPECT_EQ(std::string::npos, values.getPlatform().find('\n'));
    // "%02X:%02X:%02X:%02X:%02X:%02X"
    const std::string mac = values.getMac();
    EXPECT_EQ(17u, mac.size()) << mac;
    EXPECT_EQ(std::string::npos, mac.find_first_not_of("0123456789ABCDEF:")) << mac;
    for (size_t i = 0; i < mac.size(); ++i) {
        EXPECT_EQ(i % 3 == 2, mac[i] == ':') << mac;
    }
}

TEST(DeviceValuesTest, DocumentKeysWinAndMissingOnesKeepDefaults) {
    const DeviceValues defaults(nullptr, nullptr);

    DeviceValues full(R"({"id": "i", "model": "m", "subModel": "s", "platform": "p",
                          "brand": "b", "esn": "e", "mac": "AA:BB:CC:DD:EE:FF", "swVersion": "v"})",
                      nullptr);
    EXPECT_EQ("i", full.getId());
    EXPECT_EQ("e", full.getEsn());
    EXPECT_EQ("AA:BB:CC:DD:EE:FF", full.getMac());

    DeviceValues partial(R"({"model": "only-model", "brand": {"not": "text"}, "esn": 42})",
                         nullptr);
    EXPECT_EQ("only-model", partial.getModel());
    EXPECT_EQ(defaults.getBrand(), partial.getBrand());
    EXPECT_EQ("42", partial.getEsn());
    EXPECT_EQ(defaults.getId(), partial.getId());

    for (const char* broken : {"", "{\"model\": ", "[\"model\"]"}) {
        DeviceValues values(broken, nullptr);
        EXPECT_EQ(defaults.getModel(), values.getModel()) << broken;
        EXPECT_EQ(defaults.getId(), values.getId()) << broken;
    }
}

TEST(DeviceValuesTest, SimulatedSoftwareVersionIsPersisted) {
    TempDir dir;
    {
        CoreConfig config(simulationConfig(dir, nullptr).c_str());
        DeviceValues values("{}", &config);
        EXPECT_EQ("1.0", values.getSwVersion());
    }
    CoreConfig config(simulationConfig(dir, "7.1").c_str());
    {
        DeviceValues values("{}", &config);
        EXPECT_EQ("7.1", values.getSwVersion());
        EXPECT_TRUE(values.setSimulatedSwVersion("7.2"));
        EXPECT_EQ("7.2", values.getSwVersion());
    }
    {
        DeviceValues values("{}", &config);
        EXPECT_EQ("7.2", values.getSwVersion());
        // The document still has the last word.
        DeviceValues fromDocument(R"({"swVersion": "doc"})", &config);
        EXPECT_EQ("doc", fromDocument.getSwVersion());
    }
    // A stored file without a usable member falls back to the initial version.
    FileUtil::Drop(config.getPersistentPath(), DeviceValues::kSwVersionBaseName);
    FileUtil::Store(config.getPersistentPath(), DeviceValues::kSwVersionBaseName,
                    "{\"swVersion\": 3}");
    DeviceValues values("{}", &config);
    EXPECT_EQ("7.1", values.getSwVersion());

    // Without simulation nothing is recorded.
    CoreConfig plain(nullptr);
    DeviceValues real("{}", &plain);
    EXPECT_FALSE(real.setSimulatedSwVersion("8.0"));
    EXPECT_NE("8.0", real.getSwVersion());
}

}  // namespace

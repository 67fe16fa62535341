#include "Core/Project/DeviceValues.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "support/Config.h"
#include "support/TempDir.h"

using Zel::Core::CoreConfig;
using Zel::Core::DeviceValues;
using Zel::Core::FileUtil;
using ZelTest::TempDir;

namespace {

// No vendor plug-in in this process: these are the machine's own values.
const bool kNoPlugin = setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1) == 0;

std::string simulationConfig(const TempDir& dir, const char* initial) {
    ZelTest::ConfigDoc document;
    document.dirs(dir.path()).core("enableSwVersionSimulation", true);
    if (initial != nullptr) {
        document.core("initialSimulatedSwVersion", initial);
    }
    return document.text();
}

TEST(DeviceValuesTest, DocumentKeysWinAndOthersKeepDefaults) {
    const DeviceValues defaults(nullptr, nullptr);
    DeviceValues partial(R"({"model": "only-model", "brand": {"not": "text"}, "esn": 42})",
                         nullptr);
    EXPECT_EQ("only-model", partial.getModel());
    EXPECT_EQ(defaults.getBrand(), partial.getBrand());
    EXPECT_EQ("42", partial.getEsn());
    EXPECT_EQ(defaults.getId(), partial.getId());
    for (const char* broken : {"", "{\"model\": ", "[\"model\"]"}) {
        EXPECT_EQ(defaults.getModel(), DeviceValues(broken, nullptr).getModel()) << broken;
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

#include "Core/Project/DeviceValues.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "support/Config.h"
#include "support/TempDir.h"

using Zel::Core::CoreConfig;
using Zel::Core::DeviceValues;
using Zel::Core::FileUtil;

namespace {

// No vendor plug-in in this process: these are the machine's own values.
const bool kNoPlugin = setenv("ZEL_KORVANE_PLUGIN", "/nonexistent/libzel_korvane.so", 1) == 0;

TEST(DeviceValuesTest, DocumentKeysWinAndOthersKeepDefaults) {
    const DeviceValues defaults(nullptr, nullptr);
    DeviceValues partial(R"({"model": "only-model", "brand": {"not": "text"}, "esn": 42})",
                         nullptr);
    EXPECT_EQ("only-model", partial.getModel());
    EXPECT_EQ(defaults.getBrand(), partial.getBrand());
    EXPECT_EQ("42", partial.getEsn());
    EXPECT_EQ(defaults.getModel(), DeviceValues("[\"model\"]", nullptr).getModel());
}

TEST(DeviceValuesTest, SimulatedSoftwareVersionIsPersisted) {
    ZelTest::TempDir dir;
    ZelTest::ConfigDoc document;
    document.dirs(dir.path()).core("enableSwVersionSimulation", true);
    CoreConfig config(document.core("initialSimulatedSwVersion", "7.1").text().c_str());
    {
        DeviceValues values("{}", &config);
        EXPECT_EQ("7.1", values.getSwVersion());
        EXPECT_TRUE(values.setSimulatedSwVersion("7.2"));
    }
    EXPECT_EQ("7.2", DeviceValues("{}", &config).getSwVersion());
    // The document still has the last word.
    EXPECT_EQ("doc", DeviceValues(R"({"swVersion": "doc"})", &config).getSwVersion());
    // A stored file without a usable member falls back to the initial version.
    FileUtil::Drop(config.getPersistentPath(), DeviceValues::kSwVersionBaseName);
    FileUtil::Store(config.getPersistentPath(), DeviceValues::kSwVersionBaseName,
                    "{\"swVersion\": 3}");
    EXPECT_EQ("7.1", DeviceValues("{}", &config).getSwVersion());
}

}  // namespace

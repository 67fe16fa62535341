// The permission table and the persisted update values, without a thread.
#include "SoftwareUpdate/Base/UpdateDecisions.h"

#include <gtest/gtest.h>

#include "SoftwareUpdate/Base/SuValues.h"
#include "support/LogCapture.h"
#include "zel.h"

using namespace Zel::Su;
using Action = UpdateDecisions::Action;

namespace {

TEST(UpdateDecisionsTest, PermissionChanges) {
    constexpr unsigned None = ZelSoftwareUpdatePermissionNone;
    constexpr unsigned Download = ZelSoftwareUpdatePermissionDownload;
    constexpr unsigned Confirm = ZelSoftwareUpdatePermissionConfirm;
    struct Case {
        unsigned from;
        unsigned to;
        Action pending;   // the download is not complete
        Action complete;  // every block is staged
    };
    const Case cases[] = {
        {None, Download, Action::Lock, Action::Lock},
        {Confirm, Download, Action::Lock, Action::Nothing},
        {None, Confirm, Action::Lock, Action::Nothing},
        {Download, None, Action::Unlock, Action::Unlock},
        {Confirm, None, Action::Unlock, Action::Nothing},
        {Download, Confirm, Action::Unlock, Action::Unlock},
        {Download, Download, Action::Nothing, Action::Nothing},
        {None, 7, Action::Nothing, Action::Nothing},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.to));
        EXPECT_EQ(c.pending, UpdateDecisions::ForPermissionChange(c.from, c.to, false));
        EXPECT_EQ(c.complete, UpdateDecisions::ForPermissionChange(c.from, c.to, true));
    }
}

TEST(UpdateDecisionsTest, PersistedValuesKeepWhatTheyCanRead) {
    SuValues values;
    values.location = "/data/update.bin";
    values.metadata = "h.c.s";
    values.installed = "ab12";
    SuValues read;
    EXPECT_TRUE(read.unmarshal(values.marshal()));
    EXPECT_EQ(values, read);

    ZelTest::LogCapture capture;
    SuValues partial;
    partial.installed = "kept";
    EXPECT_TRUE(partial.unmarshal(R"({"location": 5, "metadata": "m"})"));
    EXPECT_EQ("", partial.location);
    EXPECT_EQ("m", partial.metadata);
    EXPECT_EQ("kept", partial.installed);
    EXPECT_NE("", capture.find("Failed to read location values"));
    EXPECT_NE("", capture.find("Failed to read installed values"));
    EXPECT_FALSE(partial.unmarshal("[1]"));
    EXPECT_NE("", capture.find("Failed to read persisted values"));
}

}  // namespace

// Command request documents through the framework and the built-in commands.
#include "SupportView/Base/CommandExecutor.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <string>

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"
#include "SupportView/Base/CommandManager.h"
#include "SupportView/Base/SessionHooks.h"
#include "SupportView/Platform/Time.h"
#include "support/LogCapture.h"

using namespace Zel::Sv;
using ZelTest::LogCapture;
using ZelTest::ParseJson;

namespace {

class CommandExecutorTest : public ::testing::Test {
protected:
    void SetUp() override {
        Time::SetClockSetter([this](const timespec& when) {
            clockSetTo_ = when.tv_sec;
            return 0;
        });
        CommandManager::Instance().initialize("FFFFFF0ACC", "zel.localhost", "dev-1", "KS-9",
                                              "Korvane", "esn-1", "00:11:22:33:44:55", "7.1");
    }
    void TearDown() override {
        CommandManager::Instance().terminate();
        Time::SetClockSetter(nullptr);
    }

    // The response to one request given as JSON text.
    static Json::Value run(const std::string& text) {
        Json::Value response;
        CommandExecutor::processCommand(ParseJson(text), response);
        return response;
    }

    time_t clockSetTo_ = 0;
};

// Passes its inputs back as the whole output item.
class CommandItem : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override {
        data = inputs;
        return 0;
    }
};

TEST_F(CommandExecutorTest, ResultsOfRequests) {
    struct Case {
        const char* request;
        unsigned result;
        const char* logged;  // a line the request must log, or ""
    };
    const Case cases[] = {
        {R"({"COMMAND":{"NAME":"NO_SUCH"}})", 0, "Command Name not found!"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES","OPERATION":""}})", 0, ""},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES","OPERATION":"GET"}})", 4,
         "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES operation not supported"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES","OPERATION":"FROB"}})", 4,
         ""},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES","OPERATION":7}})", 4, ""},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES"},"INPUTS":[1]})", 3,
         "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES Invalid Parameter for inputs"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP"},"INPUTS":"x"})", 0,
         "Error getting the latency based region.  Returning empty string."},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON"},"INPUTS":{"BUTTONS":["HOME","UP"]}})",
         0, "Stubbed implementation of remote button: UP"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON"},"INPUTS":{}})", 3,
         "Error Invalid Parameter."},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON"},"INPUTS":{"BUTTONS":["HOME",1]}})",
         3, ""},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON","OPERATION":"DESCRIPTION"}})",
         3, "FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON Invalid Parameter for outputs"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_SET_DATE_TIME"},"INPUTS":{"DATETIME":"yesterday"}})",
         3, "Failed to convert Date/Time formatted string into a time value."},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_SET_DATE_TIME"},"INPUTS":{}})", 3,
         "Error Invalid Parameter."},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE"},"INPUTS":{"STATE":"ON"}})",
         3, "Invalid Training Remote State: ON"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_LOCATION"},"INPUTS":{"LOCATION":"CENTER"}})",
         0, "Stubbed implementation of update location: CENTER (860, 440)"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS"}})", 0,
         "Stubbed implementation of reset to factory defaults"},
        {R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG"}})", 0,
         "Stubbed implementation of getting the Device Config."},
        {R"({"COMMAND":"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO"})", 0, "Command Name not found!"},
        {"[]", 0, "Command Name not found!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        LogCapture capture;
        Json::Value response = run(c.request);
        EXPECT_EQ(c.result, response["RESULT"].asUInt());
        EXPECT_TRUE(response["OUTPUTS"].isArray());
        if (*c.logged != '\0') {
            EXPECT_NE("", capture.find(c.logged));
        }
    }
}

TEST_F(CommandExecutorTest, ResponseDocument) {
    Json::Value response = run(
        R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO","OPERATION":"EXECUTE","VERSION":0}})");
    EXPECT_EQ(
        ParseJson(
            R"({"NAME":"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO","OPERATION":"EXECUTE","VERSION":0})"),
        response["COMMAND"]);
    ASSERT_EQ(1u, response["OUTPUTS"].size());
    Json::Value item = response["OUTPUTS"][0];
    EXPECT_EQ("RESPONSE_DATA", item["ID"].asString());
    EXPECT_EQ("JSON", item["TYPE"].asString());
    EXPECT_EQ("en-US", item["LOCALE"].asString());
    Json::Value data = item["DATA"];
    EXPECT_EQ("FFFFFF", data["OUI"].asString());
    EXPECT_EQ("0ACC", data["MODEL_GROUP"].asString());
    EXPECT_EQ("dev-1", data["NRDEVID"].asString());
    EXPECT_EQ("Korvane", data["MFG_COMPANY_NAME"].asString());
    EXPECT_EQ("KS-9", data["MFG_HARDWARE_MODEL"].asString());
    EXPECT_EQ("7.1", data["MFG_SOFTWARE_VERSION"].asString());
    EXPECT_EQ("2015-01-28T17:45:03Z", data["MANUFACTURED_DATE"].asString());
    EXPECT_EQ(20u, data["CURRENT_DATE"].asString().size());

    // Data that is an output item already goes out as it is.
    CommandManager::Instance().registerCommand(std::make_shared<BuiltinCommand<CommandItem>>(
        CommandTraits{"ZEL_TEST_ITEM", 3, 0, 1, CommandOperationExecute}));
    item = run(R"({"COMMAND":{"NAME":"ZEL_TEST_ITEM"},"INPUTS":{"ID":"X","TYPE":"T","DATA":1}})")
        ["OUTPUTS"][0];
    EXPECT_EQ(ParseJson(R"({"ID":"X","TYPE":"T","DATA":1,"LOCALE":"en-US"})"), item);

    // A short opid cannot make a device id.
    CommandManager::Instance().initialize("FFFFF", "", "", "", "", "", "", "");
    EXPECT_NE(
        0u,
        run(R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO"}})")["RESULT"].asUInt());
}

TEST_F(CommandExecutorTest, AvailableCommandsListTheRegistry) {
    Json::Value list =
        run(R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS"}})")["OUTPUTS"][0]
                                                                                   ["DATA"];
    ASSERT_TRUE(list.isArray());
    std::vector<std::string> names;
    for (const Json::Value& entry : list) {
        names.push_back(entry["ID"].asString());
    }
    // Media streaming is there: this machine's GStreamer has every element.
    EXPECT_EQ(
        (std::vector<std::string>{
            "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES",
            "FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES",
            "FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP", "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS",
            "FFFFFF_LIVE_SUPPORT_GET_DEVICE_CAPABILITIES", "FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG",
            "FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS",
            "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL",
            "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS",
            "FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS",
            "FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS",
            "FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS", "FFFFFF_LIVE_SUPPORT_SET_DATE_TIME",
            "FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_LOCATION",
            "FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE", "FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON"}),
        names);
    Json::Value button = list[16];
    EXPECT_EQ(ParseJson(R"(["EXECUTE"])"), button["OPERATIONS"]);
    EXPECT_EQ(500u, button["ESTIMATED_EXEC_TIME_MSEC"].asUInt());
    Json::Value values = button["DESCRIPTION"]["INPUTS"][0]["VALUES"];
    EXPECT_EQ(68u, values.size());
    EXPECT_EQ("3D", values[0].asString());
    EXPECT_EQ("YELLOW", values[67].asString());
    Json::Value state = list[15];
    EXPECT_EQ(ParseJson(R"(["EXECUTE","GET"])"), state["OPERATIONS"]);
    EXPECT_EQ(1u, state["VERSION"].asUInt());
    Json::Value diagnostics = list[10];
    EXPECT_EQ(0u, diagnostics["VERSION"].asUInt());
    EXPECT_EQ(30000u, diagnostics["ESTIMATED_EXEC_TIME_MSEC"].asUInt());
    EXPECT_FALSE(list[0].isMember("DESCRIPTION"));
}

TEST_F(CommandExecutorTest, DateTimeAndTrainingRemote) {
    Json::Value response = run(
        R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_SET_DATE_TIME"},"INPUTS":{"DATETIME":"2030-01-02T03:04:05"}})");
    EXPECT_EQ(0u, response["RESULT"].asUInt());
    EXPECT_EQ(1893553445, clockSetTo_);
    EXPECT_TRUE(response["OUTPUTS"][0]["DATA"].isMember("CURRENT_DATE"));

    auto state = [] {
        return run(R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE","OPERATION":"GET"}})")
            ["OUTPUTS"][0]["DATA"]["STATE"]
                .asString();
    };
    TrainingRemoteSessionInitialize();
    EXPECT_EQ("DISABLED", state());
    run(R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE"},"INPUTS":{"STATE":"ENABLED"}})");
    EXPECT_EQ("ENABLED", state());
    // The end of a session hides it again.
    TrainingRemoteSessionTerminate();
    EXPECT_EQ("DISABLED", state());
}

TEST_F(CommandExecutorTest, LargeDocumentsAreNotPrinted) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "   ";
    for (size_t size : {CommandExecutor::kMaxPrintedBytes, CommandExecutor::kMaxPrintedBytes + 1}) {
        Json::Value request = ParseJson(R"({"COMMAND":{"NAME":"NO_SUCH"},"INPUTS":{"PAD":""}})");
        size_t bare = Json::writeString(builder, request).size();
        request["INPUTS"]["PAD"] = std::string(size - bare, 'x');
        ASSERT_EQ(size, Json::writeString(builder, request).size());
        LogCapture capture;
        Json::Value response;
        CommandExecutor::processCommand(request, response);
        std::string printed = "Printing the input JSON (" + std::to_string(size) + " bytes):";
        bool shown = capture.find(printed + "\n") != "";
        EXPECT_EQ(size == CommandExecutor::kMaxPrintedBytes, shown) << size;
        EXPECT_EQ(!shown, capture.find(printed + " suppressed due to size...") != "") << size;
    }
}

TEST_F(CommandExecutorTest, BatchAnswersEveryRequestInOrder) {
    Json::Value answer;
    CommandExecutor::processCommands(ParseJson(R"({"REQUESTS":[{"COMMAND":{"NAME":"NO_SUCH"}},
            {"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS"}}, 5]})"),
                                     answer);
    ASSERT_EQ(3u, answer["RESPONSES"].size());
    EXPECT_EQ("FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS",
              answer["RESPONSES"][1]["COMMAND"]["NAME"].asString());
    CommandExecutor::processCommands(ParseJson(R"({"REQUESTS":{}})"), answer);
    EXPECT_EQ(ParseJson(R"({"RESPONSES":[]})"), answer);
}

}  // namespace

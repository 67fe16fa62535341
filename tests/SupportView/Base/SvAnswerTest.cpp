// What an "sv" answer, the session file and the "supportView" section do to
// the session, without a cloud.
#include "SupportView/Base/SvAnswer.h"

#include <gtest/gtest.h>

#include <string>

#include "SupportView/Base/SessionFile.h"
#include "SupportView/Base/SupportViewConfig.h"
#include "support/LogCapture.h"

using namespace Zel::Sv;
using Effect = SvAnswer::Effect;

namespace {

TEST(SvAnswerTest, InitializeTakesCodeAndTokenOnlyWhenAsked) {
    struct Case {
        const char* what;
        SessionRequest pending;
        long status;
        std::string body;
        Effect effect;
        const char* token;  // afterwards
    };
    const Case cases[] = {
        {"opened", SessionRequest::Initialize, 200, R"({"sessionCode":"1234","sessionToken":"t1"})",
         Effect::SessionOpened, "t1"},
        {"not asked for", SessionRequest::None, 200,
         R"({"sessionCode":"1234","sessionToken":"t1"})", Effect::Nothing, ""},
        {"no body", SessionRequest::Initialize, 204, "", Effect::Nothing, ""},
        {"not json", SessionRequest::Initialize, 200, "nope", Effect::Nothing, ""},
        {"no token", SessionRequest::Initialize, 200, R"({"sessionCode":"1234"})", Effect::Nothing,
         ""},
        {"token with a line break", SessionRequest::Initialize, 200,
         R"({"sessionCode":"1234","sessionToken":"t\r\nX: y"})", Effect::Nothing, ""},
        {"token not text", SessionRequest::Initialize, 200,
         R"({"sessionCode":"1234","sessionToken":{"a":1}})", Effect::Nothing, ""},
        {"code too long", SessionRequest::Initialize, 200,
         R"({"sessionToken":"t","sessionCode":")" + std::string(65, '1') + "\"}", Effect::Nothing,
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SessionValues values;
        values.sessionRequest = c.pending;
        values.sessionCodeDigits = 4;
        std::unique_ptr<SessionTask> task;
        EXPECT_EQ(c.effect,
                  SvAnswer::Apply(MicroService::InitializeSession, c.status, c.body, values, task));
        EXPECT_EQ(c.token, values.sessionToken);
        // Whatever came back, the request has been answered.
        if (c.pending == SessionRequest::Initialize) {
            EXPECT_EQ(SessionRequest::None, values.sessionRequest);
        }
    }
}

TEST(SvAnswerTest, CodeOfOtherLengthIsTakenAndLogged) {
    ZelTest::LogCapture capture;
    SessionValues values;
    values.sessionRequest = SessionRequest::Initialize;
    values.sessionCodeDigits = 9;
    std::unique_ptr<SessionTask> task;
    SvAnswer::Apply(MicroService::InitializeSession, 200,
                    R"({"sessionCode":"123456","sessionToken":"t"})", values, task);
    EXPECT_EQ("123456", values.sessionCode);
    EXPECT_NE("", capture.find("sessionCode digits 6 requested 9"));
}

TEST(SvAnswerTest, SessionCallsConcludeTheirOwnRequestOnly) {
    struct Case {
        MicroService service;
        SessionRequest pending;
        Effect effect;
        SessionRequest after;
    };
    const Case cases[] = {
        {MicroService::TerminateSession, SessionRequest::Terminate, Effect::SessionEnded,
         SessionRequest::Terminate},
        {MicroService::TerminateSession, SessionRequest::None, Effect::Nothing,
         SessionRequest::None},
        {MicroService::SuspendSession, SessionRequest::Suspend, Effect::SessionSuspended,
         SessionRequest::Suspend},
        {MicroService::SuspendSession, SessionRequest::Terminate, Effect::Nothing,
         SessionRequest::Terminate},
        {MicroService::ResumeSession, SessionRequest::Resume, Effect::Nothing,
         SessionRequest::None},
        {MicroService::ResumeSession, SessionRequest::Terminate, Effect::Nothing,
         SessionRequest::Terminate},
    };
    for (const Case& c : cases) {
        SessionValues values;
        values.sessionToken = "t";
        values.sessionRequest = c.pending;
        std::unique_ptr<SessionTask> task;
        EXPECT_EQ(c.effect, SvAnswer::Apply(c.service, 204, "", values, task))
            << MicroServiceToString(c.service);
        EXPECT_EQ(c.after, values.sessionRequest);
    }
}

TEST(SvAnswerTest, TasksAndResults) {
    struct Case {
        const char* body;
        Effect effect;
        unsigned seqNum;
        const char* request;
    };
    const Case cases[] = {
        {R"({"seqNum":5,"taskRequest":"{\"REQUESTS\":[]}"})", Effect::TaskReceived, 5,
         R"({"REQUESTS":[]})"},
        {R"({"seqNum":6})", Effect::TaskReceived, 6, "{}"},
        {R"({"seqNum":-1,"taskRequest":{"REQUESTS":[]}})", Effect::TaskReceived, 0,
         R"({"REQUESTS":[]})"},
        {R"({"seqNum":7,"taskRequest":[1]})", Effect::TaskReceived, 7, "{}"},
        {"[1,2]", Effect::Nothing, 0, ""},
        {"", Effect::Nothing, 0, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        SessionValues values;
        values.sessionToken = "t";
        values.generation = 3;
        std::unique_ptr<SessionTask> task;
        EXPECT_EQ(c.effect, SvAnswer::Apply(MicroService::GetCommand, 200, c.body, values, task));
        if (c.effect == Effect::TaskReceived) {
            ASSERT_TRUE(task);
            EXPECT_EQ(c.seqNum, task->seqNum);
            EXPECT_EQ(c.seqNum, values.getTaskSeqNum);
            EXPECT_EQ(c.request, task->taskRequest);
            EXPECT_EQ(3u, task->generation);
            EXPECT_EQ(1u, values.taskExecuteCount);
        } else {
            EXPECT_FALSE(task);
        }
    }

    // A posted result leaves the list even when the answer has no body.
    SessionValues values;
    values.sessionToken = "t";
    values.taskResultList.push_back(std::make_unique<SessionTask>());
    values.taskResultList.push_back(std::make_unique<SessionTask>());
    std::unique_ptr<SessionTask> none;
    EXPECT_EQ(Effect::ResultPosted,
              SvAnswer::Apply(MicroService::PutCommand, 200, R"({"seqNum":4})", values, none));
    EXPECT_EQ(4u, values.putTaskSeqNum);
    EXPECT_EQ(Effect::ResultPosted,
              SvAnswer::Apply(MicroService::PutCommand, 204, "", values, none));
    EXPECT_TRUE(values.taskResultList.empty());
    EXPECT_EQ(0u, values.putTaskSeqNum);
}

TEST(SvAnswerTest, SessionFileTakesOnlyAUsableSession) {
    std::string code = "old";
    std::string token = "old";
    EXPECT_TRUE(SessionFile::Parse(SessionFile::Format("123456789", "tok"), code, token));
    EXPECT_EQ("123456789", code);
    EXPECT_EQ("tok", token);
    EXPECT_EQ(R"({"code":"1","token":"2"})", SessionFile::Format("1", "2"));
    for (const char* bad : {"", "{", "[]", R"({"code":"1"})", R"({"code":1,"token":"t"})",
                            R"({"code":"1","token":""})", R"({"code":"1","token":"a\nb"})"}) {
        EXPECT_FALSE(SessionFile::Parse(bad, code, token)) << bad;
    }
    EXPECT_EQ("tok", token);
}

TEST(SvAnswerTest, ConfigurationSection) {
    ZelTest::LogCapture capture;
    struct Case {
        const char* text;
        bool pause;
        bool remote;
        unsigned digits;
    };
    const Case cases[] = {
        {"{}", true, false, 9},
        {R"({"supportView":{"pauseSessionOnTerm":false,"allowRemoteSession":true,"sessionCodeDigits":4}})",
         false, true, 4},
        {R"({"supportView":{"sessionCodeDigits":16}})", true, false, 16},
        {R"({"supportView":{"sessionCodeDigits":20}})", true, false, 9},
        {R"({"supportView":{"sessionCodeDigits":-3,"allowRemoteSession":"yes"}})", true, false, 9},
        {"not json", true, false, 9},
    };
    for (const Case& c : cases) {
        SupportViewConfig config(c.text);
        EXPECT_EQ(c.pause, config.getPauseSessionOnTerm()) << c.text;
        EXPECT_EQ(c.remote, config.getAllowRemoteSession()) << c.text;
        EXPECT_EQ(c.digits, config.getSessionCodeDigits()) << c.text;
    }
    EXPECT_NE("", capture.find("SupportView Session Code Digits set to illegal value of 20, "
                               "defaulting to 9"));
}

}  // namespace

// Bad input of every kind the agent can meet: documents, cloud answers,
// persisted files, the host quitting under it. The agent lives in the TV's
// process, so each case runs it in a probe child of its own: a crash or hang
// fails the case instead of killing the runner. Every case ends with the
// probe starting the agent again from good documents.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>

#include "Core/Platform/FileUtil.h"
#include "support/AgentLab.h"
#include "support/ChildProcess.h"

using testing::StartsWith;
using ZelCloud::FaultPlan;
using ZelCloud::RecordedRequest;
using ZelTest::AgentLab;

namespace {

constexpr std::chrono::milliseconds kBound = AgentLab::kPatience;
using Requests = std::vector<RecordedRequest>;
using Edit = std::function<std::string(const std::string&)>;

std::string Nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

// `document` with its objects kept and every other value written by `leaf`.
std::string Rewrite(const std::string& document,
                    const std::function<std::string(const Json::Value&)>& leaf) {
    std::function<std::string(const Json::Value&)> write = [&](const Json::Value& value) {
        std::string text;
        for (const std::string& key :
             value.isObject() ? value.getMemberNames() : std::vector<std::string>()) {
            text += (text.empty() ? "{\"" : ",\"") + key + "\":" + write(value[key]);
        }
        return value.isObject() ? (text.empty() ? "{" : text) + "}" : leaf(value);
    };
    return write(ZelTest::ParseJson(document));
}

std::string WrongTypes(const std::string& document) {
    return Rewrite(document, [](const Json::Value& v) {
        return v.isString() ? "7" : v.isBool() || v.isNumeric() ? "\"7\"" : "{\"x\":[true]}";
    });
}

bool Faulted(const RecordedRequest& request) {
    return request.note.find("fault") != std::string::npos;
}

// Polls the cloud answered as itself.
size_t NormalPolls(const Requests& requests) {
    return static_cast<size_t>(std::count_if(requests.begin(), requests.end(), [](auto& r) {
        return r.path == "/api/v1/da/notification" && r.status == 200 && !Faulted(r);
    }));
}

bool PolledAfterFault(const Requests& requests) {
    auto fault = std::find_if(requests.rbegin(), requests.rend(), Faulted);
    return fault != requests.rend() && NormalPolls(Requests(requests.rbegin(), fault)) > 0;
}

bool WaitForNormalPolls(AgentLab& lab, size_t count) {
    return lab.waitFor([count](auto& requests) { return NormalPolls(requests) >= count; });
}

// Thrown when a probe gave no answer (a failure already), to end its case.
struct ProbeGone {};

// One case of a table; the next case runs whatever happens to this one.
void RunCase(const std::string& name, const std::function<void()>& body) {
    SCOPED_TRACE(name);
    try {
        body();
    } catch (const ProbeGone&) {
    }
}

// The probe child in the lab's directory, asked one command at a time.
class Probe {
public:
    explicit Probe(AgentLab& lab) : lab_(lab), child_(ZEL_PROBE, {lab.persistentDir()}) {}

    std::string ask(const std::string& command) {
        std::optional<std::string> line;
        if (child_.writeLine(command)) {
            line = child_.readLine(kBound);
        }
        if (!line) {
            std::optional<ZelTest::ChildProcess::Exit> end = child_.wait(std::chrono::seconds(2));
            ADD_FAILURE() << "no answer to \"" << command
                          << "\": " << (end ? end->describe() : "none in time (hang)");
            throw ProbeGone();
        }
        return *line;
    }
    // ZelInit's result.
    long init(const std::string& identity, const std::string& config, const std::string& device) {
        return Number(ask("init " + file(identity) + " " + file(config) + " " + file(device)),
                      "init ");
    }
    long initGood() { return init(lab_.identity(), lab_.config(), lab_.device()); }
    // `command` ("term", "factory-reset"), then the milliseconds until Uninitialized.
    long stop(const std::string& command = "term") {
        EXPECT_THAT(ask(command), StartsWith(command + " "));
        return Number(ask("wait-state 0"), "state 0 ");
    }
    // Has the probe return from main at once, and expects a clean exit.
    void exit() {
        child_.writeLine("exit");
        std::optional<ZelTest::ChildProcess::Exit> end = child_.wait(kBound);
        EXPECT_TRUE(end && end->ok()) << (end ? end->describe() : "no exit (hang)");
    }
    // A file holding `content`, for the commands that read files.
    std::string file(const std::string& content) {
        std::string path = docs_.file(std::to_string(files_++));
        ZelTest::WriteFile(path, content);
        return path;
    }

private:
    static long Number(const std::string& answer, const std::string& prefix) {
        EXPECT_THAT(answer, StartsWith(prefix));
        return answer.rfind(prefix, 0) == 0 ? std::atol(answer.c_str() + prefix.size()) : -1;
    }

    AgentLab& lab_;
    ZelTest::ChildProcess child_;
    ZelTest::TempDir docs_;
    int files_ = 0;
};

// A normal run, and how every case ends: the probe starts the agent from good
// documents, sees it poll the cloud, stops it and exits cleanly.
void RunNormally(Probe& probe, AgentLab& lab) {
    lab.cloud().clearFaults();
    size_t polls = NormalPolls(lab.cloud().requests());
    ASSERT_EQ(0, probe.initGood()) << "no start from good documents";
    ASSERT_TRUE(WaitForNormalPolls(lab, polls + 1)) << "no poll after a start";
    ASSERT_LE(0, probe.stop());
    probe.exit();
}

void HoldPolls(AgentLab& lab) {
    lab.cloud().addFault(ZelTest::Fault("da/notification", FaultPlan::Kind::Delay, 0, 600000));
}

// Once the state call is answered, the only call in flight is the held poll.
bool WaitForHeldPoll(AgentLab& lab) {
    return lab.waitForCalls("da/state", 1) && lab.cloud().waitForInFlight(1, kBound);
}

}  // namespace

TEST(BadInput, Documents) {
    auto number = [](std::string n) {
        return [n](auto& good) { return Rewrite(good, [n](auto&) { return n; }); };
    };
    const std::vector<std::pair<std::string, Edit>> variants = {
        {"nested 100000 deep", [](auto&) { return Nested(100000); }},
        {"1e400 for every value", number("1e400")},
        {"-1 for every value", number("-1")},
        {"2^64 for every value", number("18446744073709551616")},
        {"not JSON", [](auto&) { return std::string("this is not JSON {"); }},
        {"wrong types for every key", WrongTypes},
    };
    const char* documents[] = {"identity", "configuration", "device"};
    for (int which = 0; which < 3; ++which) {
        for (const auto& [name, edit] : variants) {
            RunCase(std::string(documents[which]) + " " + name, [&] {
                AgentLab lab;
                Probe probe(lab);
                std::string docs[] = {lab.identity(), lab.config(), lab.device()};
                docs[which] = edit(docs[which]);
                long result = probe.init(docs[0], docs[1], docs[2]);
                ASSERT_TRUE(result == 0 || result == 5) << "ZelInit gave " << result;
                EXPECT_EQ(result == 0 ? "status 1" : "status 0", probe.ask("status"));
                EXPECT_THAT(probe.ask("oem bad input"), StartsWith("oem "));
                EXPECT_LE(0, probe.stop());
                RunNormally(probe, lab);
            });
        }
    }
}

TEST(BadInput, CloudAnswers) {
    // Every delay and time-out the lab hands out, and more numbers of the answer.
    auto numbers = [](const std::string& number) {
        Json::Value keys = ZelCloud::CloudSettings::Defaults();
        for (const char* key : {"daOpidSeqNum", "daGidSeqNum", "dsAggressiveQueuePercentage",
                                "dsStandardDelayFixedMs", "svSpeedTestDownloadSize",
                                "svActiveTimeoutMs", "suMaxRetryCount"}) {
            keys[key] = 0;
        }
        return Rewrite(keys.toStyledString(), [&](auto&) { return number; });
    };
    const std::string events = R"({"daEvents": [-1, 1e30, "e", null, [], {"event": 5, "id": 1},
        {"event": "a", "id": -1}, {"event": "b", "id": 1e30}, {"event": "c", "id": 4294967296},
        {"event": "d", "id": 2, "parameters": )";
    const std::vector<std::array<std::string, 3>> cases = {
        {"identity nested 100000 deep", "da/gidtoken", Nested(100000)},
        {"identity empty", "da/gidtoken", ""},
        {"identity without a token", "da/gidtoken", "{}"},
        {"identity with an empty token", "da/gidtoken", R"({"daGidToken": ""})"},
        {"state nested 100000 deep", "da/state", Nested(100000)},
        {"state numbers 1e300", "da/state", numbers("1e300")},
        {"state numbers -5", "da/state", numbers("-5")},
        {"state numbers 2^32", "da/state", numbers("4294967296")},
        {"state numbers 2^64-1", "da/state", numbers("18446744073709551615")},
        {"state events as a string", "da/state", R"({"daEvents": "event"})"},
        {"state events of odd elements", "da/state", events + Nested(50) + "}]}"},
        {"state event parameters nested 100000 deep", "da/state", events + Nested(100000) + "}]}"},
        {"state of 8 MiB", "da/state", "{\"pad\":\"" + std::string(8 << 20, 'a') + "\"}"},
        {"state empty", "da/state", ""},
        {"notification nested 100000 deep", "da/notification", Nested(100000)},
        {"notification empty", "da/notification", ""},
    };
    for (const auto& [name, path, body] : cases) {
        RunCase(name, [&] {
            AgentLab lab;
            bool identity = path == "da/gidtoken";
            if (!identity) {
                // A first run for the lab's short retry delay, and a state call at the next poll.
                Probe first(lab);
                ASSERT_NO_FATAL_FAILURE(RunNormally(first, lab));
                lab.cloud().desynchronize();
            }
            // A fresh device asks for an identity at once; the fault outlasts any retry.
            lab.cloud().addFault(
                {path, FaultPlan::Kind::Body, 200, 0, body, identity ? 1000000u : 1u});
            Probe probe(lab);
            ASSERT_EQ(0, probe.initGood());
            if (identity) {
                // An answer without a token costs a retry delay, not a new call at once.
                ASSERT_TRUE(lab.waitForCalls("da/gidtoken", 1));
                EXPECT_FALSE(lab.waitForCalls("da/gidtoken", 6, std::chrono::seconds(1)))
                    << "asked again at once: " << lab.calls("da/gidtoken").size() << " calls";
            } else {
                EXPECT_TRUE(lab.waitFor(PolledAfterFault)) << "no normal poll after the fault";
            }
            EXPECT_LE(0, probe.stop());
            RunNormally(probe, lab);
        });
    }
}

TEST(BadInput, PersistedFiles) {
    struct Case {
        std::string name, base;
        Edit content;          // of the file, from its content after a normal run
        std::string odd = "";  // instead a "fifo", or a link to this path
    };
    auto text = [](const std::string& content) { return [content](auto&) { return content; }; };
    const std::vector<Case> cases = {
        {"values nested 100000 deep", "coreValues", text(Nested(100000))},
        {"values of wrong types", "coreValues", WrongTypes},
        {"values a FIFO", "coreValues", text(""), "fifo"},
        {"timer 5e9 ns", "daTime", text(R"({"sec": 1, "nsec": 5000000000})")},
        {"timer 2^64-1 s", "daTime", text(R"({"sec": 18446744073709551615, "nsec": 0})")},
        {"timer a link to /dev/zero", "daTime", text(""), "/dev/zero"},
        {"token with a header", "coreToken", [](auto& token) { return token + "\r\nX-Evil: 1"; }},
    };
    for (const Case& c : cases) {
        RunCase(c.name, [&] {
            AgentLab lab;
            Probe first(lab);
            ASSERT_NO_FATAL_FAILURE(RunNormally(first, lab));
            // The state of the base is replaced by the bad one, under a valid name.
            std::string current;
            for (const auto& entry : std::filesystem::directory_iterator(lab.persistentDir())) {
                if (entry.path().filename().string().rfind(c.base + "_", 0) == 0) {
                    current = ZelTest::ReadFile(entry.path());
                    std::filesystem::remove(entry.path());
                }
            }
            ASSERT_FALSE(current.empty()) << "no " << c.base << " file after a normal run";
            std::string content = c.content(current);
            std::string bad = lab.persistentDir() + "/" + c.base + "_0_" +
                              Zel::Core::FileUtil::calcMd5Hash(content.data(), content.size());
            if (c.odd.empty()) {
                ZelTest::WriteFile(bad, content);
            } else {
                ASSERT_EQ(0, c.odd == "fifo" ? mkfifo(bad.c_str(), 0664)
                                             : symlink(c.odd.c_str(), bad.c_str()));
            }

            Probe probe(lab);
            size_t polls = NormalPolls(lab.cloud().requests());
            ASSERT_EQ(0, probe.initGood());
            EXPECT_TRUE(WaitForNormalPolls(lab, polls + 1)) << "no poll after the bad file";
            EXPECT_LE(0, probe.stop());
            EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(bad)))
                << "the bad file is still there";
            if (c.base != "coreToken") {
                EXPECT_EQ(1u, lab.calls("da/gidtoken").size()) << "a new identity";
            }
            RunNormally(probe, lab);
        });
    }
}

// Remote-support answers and the session file. Each case opens a session
// against a cloud that answers one sv call with the bad body; the agent must
// go on polling and stop as usual.
TEST(BadInput, SessionAnswersAndFiles) {
    struct Case {
        std::string name, path, body;
    };
    const std::string deepTask = R"({"seqNum": 1, "taskRequest": ")" + Nested(100000) + "\"}";
    const std::string bigTask =
        R"({"seqNum": 1, "taskRequest": "{\"PAD\": \")" + std::string(3 << 20, 'a') + "\\\"}\"}";
    const std::vector<Case> cases = {
        {"initialize nested 100000 deep", "sv/session/initialize", Nested(100000)},
        {"initialize with a header in the token", "sv/session/initialize",
         R"({"sessionCode": "1234", "sessionToken": "t\r\nX-Evil: 1"})"},
        {"get nested 100000 deep", "sv/command/get", Nested(100000)},
        {"task request nested 100000 deep", "sv/command/get", deepTask},
        {"task request of 3 MiB", "sv/command/get", bigTask},
        {"task request with odd requests", "sv/command/get",
         R"({"seqNum": 1, "taskRequest": "{\"REQUESTS\": [5, {\"COMMAND\": []}, {\"COMMAND\": {\"NAME\": {}}}]}"})"},
        {"session file nested 100000 deep", "session", Nested(100000)},
    };
    for (const Case& c : cases) {
        RunCase(c.name, [&] {
            AgentLab lab;
            Probe first(lab);
            ASSERT_NO_FATAL_FAILURE(RunNormally(first, lab));
            if (c.path == "session") {
                std::string bad = lab.persistentDir() + "/session_0_" +
                                  Zel::Core::FileUtil::calcMd5Hash(c.body.data(), c.body.size());
                ZelTest::WriteFile(bad, c.body);
            } else {
                lab.cloud().addFault({c.path, FaultPlan::Kind::Body, 200, 0, c.body, 1u});
            }
            Probe probe(lab);
            size_t polls = NormalPolls(lab.cloud().requests());
            ASSERT_EQ(0, probe.initGood());
            ASSERT_TRUE(WaitForNormalPolls(lab, polls + 1));
            if (c.path != "session") {
                EXPECT_THAT(probe.ask("session"), StartsWith("session 0"));
                EXPECT_TRUE(lab.waitFor(PolledAfterFault)) << "no normal poll after the fault";
            }
            EXPECT_LE(0, probe.stop());
            RunNormally(probe, lab);
        });
    }
}

// The power goes while an update is staged, twice; the third start finishes
// it from what the first two left, and the payload verifies.
TEST(BadInput, KilledDuringANetworkDownloadResumes) {
    Json::Value settings = AgentLab::FastSettings();
    settings["suStagingRetryDelayFixedMs"] = 50;
    settings["suStagingRetryDelayVariedMs"] = 0;
    AgentLab lab(settings);
    ZelCloud::UpdateSpec spec;
    spec.payload = ZelCloud::GeneratePayload(8 * 16384, 3);
    spec.blockSize = 16384;
    spec.version = "5.0.0";
    ZelCloud::PublishedUpdate update;
    std::string error;
    ASSERT_TRUE(lab.cloud().publishUpdate(spec, update, error)) << error;
    // Slow blocks, so that a kill lands in the middle of the staging.
    lab.cloud().addPayloadFault(
        {update.id, ZelCloud::PayloadFaults::Kind::Delay, 0, 100, 0, 1000, ""});
    for (size_t killAfter : {2u, 5u}) {
        SCOPED_TRACE(killAfter);
        auto probe = std::make_unique<Probe>(lab);
        ASSERT_EQ(0, probe->initGood());
        ASSERT_EQ("update 2", probe->ask("wait-update 2").substr(0, 8));
        ASSERT_EQ("permission 0", probe->ask("permission 1"));
        ASSERT_TRUE(lab.cloud().waitForPayloadRequests(killAfter, kBound));
        probe.reset();  // SIGKILL
        EXPECT_TRUE(lab.cloud().updateReports().empty());
    }
    lab.cloud().clearPayloadFaults();
    Probe probe(lab);
    ASSERT_EQ(0, probe.initGood());
    // The kept offer is verified again before the host is asked.
    ASSERT_EQ("update 2", probe.ask("wait-update 2").substr(0, 8));
    ASSERT_EQ("permission 0", probe.ask("permission 1"));
    EXPECT_EQ("update 3", probe.ask("wait-update 3").substr(0, 8));
    EXPECT_EQ(spec.payload, ZelTest::ReadFile(lab.stagingFile()));
    ASSERT_TRUE(lab.cloud().waitForUpdateReports(1, kBound));
    EXPECT_TRUE(lab.cloud().updateReports()[0].status);
    EXPECT_LT(lab.cloud().payloadRequests().size(), 8u + 4u) << "blocks were fetched again";
    EXPECT_LE(0, probe.stop());
    probe.exit();
}

TEST(BadInput, NulInThePersistentPath) {
    AgentLab lab;
    ZelTest::TempDir outside;
    const std::string victim = outside.file("victim");
    const std::string precious = "not the agent's\n";
    ZelTest::WriteFile(victim, precious);
    RunCase("persistent path cut short by a NUL", [&] {
        Probe probe(lab);
        std::string config = ZelTest::ConfigDoc().core("persistentPath", victim + '\0').text();
        long result = probe.init(lab.identity(), config, lab.device());
        ASSERT_TRUE(result == 0 || result == 5) << "ZelInit gave " << result;
        if (result == 0) {
            EXPECT_TRUE(WaitForNormalPolls(lab, 1));
        }
        EXPECT_LE(0, probe.stop("factory-reset"));
        EXPECT_THAT(probe.ask("factory-reset-offline " + probe.file(config)),
                    StartsWith("factory-reset-offline "));
        RunNormally(probe, lab);
    });
    EXPECT_EQ(precious, ZelTest::ReadFile(victim)) << "a file outside the agent's directory";
}

TEST(BadInput, TermDuringASlowAnswer) {
    for (bool injected : {false, true}) {
        RunCase(injected ? "slow injected answer" : "slow cloud answer", [&] {
            AgentLab lab;
            Probe probe(lab);
            ZelTest::ConfigDoc config = lab.configDoc();
            if (injected) {
                config.inject("da/notification", ZelTest::ParseJson(R"([{"statusCode": 200,
                    "body": "{}", "duration": 600}])"));
            } else {
                HoldPolls(lab);
            }
            ASSERT_EQ(0, probe.init(lab.identity(), config.text(), lab.device()));
            ASSERT_TRUE(injected ? lab.waitForLog("StateControl calling CheckForNotification")
                                 : WaitForHeldPoll(lab))
                << "no slow answer under way";
            long latency = probe.stop();
            EXPECT_LE(0, latency);
            EXPECT_GT(500, latency) << "ms from ZelTerm to Uninitialized";
            RunNormally(probe, lab);
        });
    }
}

TEST(BadInput, HostReturnsFromMainWithoutWaiting) {
    const std::vector<std::pair<std::string, std::function<void(AgentLab&, Probe&)>>> cases = {
        {"during an exchange",
         [](auto& lab, auto& probe) {
             HoldPolls(lab);
             ASSERT_EQ(0, probe.initGood());
             ASSERT_TRUE(WaitForHeldPoll(lab));
         }},
        {"right after ZelTerm",
         [](auto& lab, auto& probe) {
             ASSERT_EQ(0, probe.initGood());
             ASSERT_TRUE(WaitForNormalPolls(lab, 1));
             ASSERT_EQ("term 0", probe.ask("term"));
         }},
        {"right after ZelInit", [](auto&, auto& probe) { ASSERT_EQ(0, probe.initGood()); }},
    };
    for (int round = 0; round < 3; ++round) {
        for (const auto& [name, prepare] : cases) {
            RunCase(name + ", round " + std::to_string(round), [&] {
                AgentLab lab;
                {
                    Probe probe(lab);
                    ASSERT_NO_FATAL_FAILURE(prepare(lab, probe));
                    probe.exit();
                }
                // The next boot starts from whatever the exit left behind.
                Probe next(lab);
                RunNormally(next, lab);
            });
        }
    }
}

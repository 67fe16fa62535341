#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

// Reads what the soak needs out of the control interface's documents. Every
// member's type is checked before it is used; a document of another shape
// reads as "not there yet".
class CloudView {
public:
    // The state ("active", "suspended", "retired") of the session with this
    // code in GET /control/sessions; false when it is not listed.
    static bool SessionState(const Json::Value& sessions, const std::string& code,
                             std::string& state);
    // The responses of the session's result for task `seqNum`; false while
    // there is none. A result without a readable document gives an empty list.
    static bool TaskResponses(const Json::Value& sessions, const std::string& code, uint64_t seqNum,
                              Json::Value& responses);
    // True when there are responses and each has RESULT 0; else `problem` says why.
    static bool AllSucceeded(const Json::Value& responses, std::string& problem);

    // The stream `name` in GET /control/streams; false when it is not listed.
    static bool Stream(const Json::Value& streams, const std::string& name, uint64_t& frames,
                       bool& connected);

    // The last report for the update `id` in GET /control/update-reports;
    // false while there is none.
    static bool UpdateReport(const Json::Value& reports, const std::string& id, bool& success,
                             std::string& details);

    // How many results with this name, operation and outcome GET /control/drmp
    // lists over all devices.
    static unsigned DrmpResults(const Json::Value& drmp, const std::string& name,
                                const std::string& operation, bool success);

    // An unsigned number member ("seqNum", "port"); false when missing or not one.
    static bool Number(const Json::Value& object, const char* key, uint64_t& value);
    // A text member ("id"); false when missing or not one.
    static bool Text(const Json::Value& object, const char* key, std::string& value);

private:
    // The member of that type, or null.
    static const Json::Value* Member(const Json::Value& object, const char* key,
                                     Json::ValueType type);
};

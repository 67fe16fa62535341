#pragma once

#include "Core/Platform/Appender.h"

namespace Zel {
namespace Core {

class SyslogAppender : public Appender {
public:
    SyslogAppender(const Json::Value& config, const std::string& ident, int facility);
    ~SyslogAppender() override;

    void doAppend(const LoggingEvent& event) override;
    void close() override;
    virtual void open();

    // Maps a priority on a 0..800 scale to a syslog level 0..7. Agent
    // severities (0..6) all land on 0; that is how the records are sent.
    static int ToSyslogPriority(int priority);

    const std::string& getIdent() const { return ident_; }
    int getFacility() const { return facility_; }

private:
    std::string ident_;  // openlog keeps the pointer: lives as long as the appender
    int facility_;
};

}  // namespace Core
}  // namespace Zel

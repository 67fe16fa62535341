#include "Core/Platform/SyslogAppender.h"

#include <syslog.h>

namespace Zel {
namespace Core {

SyslogAppender::SyslogAppender(const Json::Value& config, const std::string& ident, int facility)
    : Appender("syslog", config), ident_(ident), facility_(facility) {
    SyslogAppender::open();
}

SyslogAppender::~SyslogAppender() {
    closelog();
}

void SyslogAppender::open() {
    openlog(ident_.c_str(), 0, facility_);
}

void SyslogAppender::close() {
    closelog();
}

void SyslogAppender::doAppend(const LoggingEvent& event) {
    std::string text = render(event);
    syslog(ToSyslogPriority(event.severity) | facility_, "%s", text.c_str());
}

int SyslogAppender::ToSyslogPriority(int priority) {
    static const int kLevels[] = {0, 1, 2, 3, 4, 5, 6, 7};
    if (priority < -100) {
        return 0;
    }
    if (priority > 798) {
        return 7;
    }
    return kLevels[(priority + 1) / 100];
}

}  // namespace Core
}  // namespace Zel

#pragma once

#include <sys/types.h>

#include "Core/Platform/Appender.h"

namespace Zel {
namespace Core {

// Appends records to a file opened once at construction. No rotation, no size
// limit; if the file cannot be opened every record is silently dropped.
class FileAppender : public Appender {
public:
    // `append` keeps earlier content; otherwise the file is truncated on open.
    FileAppender(const Json::Value& config, const std::string& path, bool append, mode_t mode);
    ~FileAppender() override;

    void doAppend(const LoggingEvent& event) override;
    void close() override;

    const std::string& getPath() const { return path_; }
    int getFlags() const { return flags_; }
    mode_t getMode() const { return mode_; }
    int getDescriptor() const { return fd_; }

private:
    std::string path_;
    int flags_;
    mode_t mode_;
    int fd_;
};

}  // namespace Core
}  // namespace Zel

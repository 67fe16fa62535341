#include "Core/Platform/FileAppender.h"

#include <fcntl.h>
#include <unistd.h>

namespace Zel {
namespace Core {

FileAppender::FileAppender(const Json::Value& config, const std::string& path, bool append,
                           mode_t mode)
    : Appender("file", config),
      path_(path),
      flags_(append ? (O_WRONLY | O_CREAT | O_APPEND) : (O_WRONLY | O_CREAT | O_TRUNC | O_APPEND)),
      mode_(mode),
      fd_(::open(path.c_str(), flags_, mode)) {}

FileAppender::~FileAppender() {
    FileAppender::close();
}

void FileAppender::doAppend(const LoggingEvent& event) {
    if (fd_ < 0) {
        return;
    }
    // A single write with O_APPEND keeps each record whole even when another
    // process appends to the same file.
    std::string text = render(event);
    ssize_t ignored = ::write(fd_, text.data(), text.size());
    (void)ignored;
}

void FileAppender::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace Core
}  // namespace Zel

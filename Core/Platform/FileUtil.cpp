#include "Core/Platform/FileUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "Core/Platform/HexUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"

namespace {
constexpr const char* kLogSource = "Platform/FileUtil";

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string withSlash(const std::string& dir) {
    if (!dir.empty() && dir.back() != '/') {
        return dir + "/";
    }
    return dir;
}

void removeFile(const std::string& path) {
    // A file that is already gone needs no deleting.
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError,
                "Error Deleting File.");
    }
}

// A new name in a directory survives a power cut only once the directory
// itself is on disk.
void syncDirectory(const std::string& dir) {
    FileDescriptor fd(open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0 || fsync(fd.get()) != 0) {
        ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError,
                "Problem %d syncing directory %s", errno, dir.c_str());
    }
}

// Never follows a link and never writes through an entry of another kind
// that happens to carry the name: whatever is there is replaced.
int createNew(const std::string& path) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_DSYNC | O_CLOEXEC;
    int fd = open(path.c_str(), flags, 0664);
    if (fd < 0 && errno == EEXIST && unlink(path.c_str()) == 0) {
        fd = open(path.c_str(), flags, 0664);
    }
    return fd;
}

bool writeAll(int fd, const std::string& content, ssize_t& written) {
    written = 0;
    while (static_cast<size_t>(written) < content.size()) {
        ssize_t n = write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        written += n;
    }
    return true;
}

enum class ReadResult { Ok, CannotOpen, Refused, Failed };

// Reads a regular file of at most `limit` bytes without ever blocking on a
// FIFO or following a link to a device.
ReadResult readRegularFile(const std::string& path, size_t limit, std::string& data,
                           std::string& why) {
    // Looked at before opening: opening a device can have effects of its own.
    struct stat entry {};
    if (lstat(path.c_str(), &entry) == 0 && !S_ISREG(entry.st_mode)) {
        why = S_ISLNK(entry.st_mode) ? "a link" : "not a regular file";
        return ReadResult::Refused;
    }
    FileDescriptor fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ELOOP) {
            why = "a link";
            return ReadResult::Refused;
        }
        return ReadResult::CannotOpen;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0) {
        return ReadResult::Failed;
    }
    if (!S_ISREG(info.st_mode)) {
        why = "not a regular file";
        return ReadResult::Refused;
    }
    if (static_cast<unsigned long long>(info.st_size) > limit) {
        why = "larger than " + std::to_string(limit) + " bytes";
        return ReadResult::Refused;
    }
    data.resize(static_cast<size_t>(info.st_size));
    size_t got = 0;
    while (got < data.size()) {
        ssize_t n = read(fd.get(), &data[got], data.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return ReadResult::Failed;
        }
        if (n == 0) {
            break;  // shrank while we read: the digest decides
        }
        got += static_cast<size_t>(n);
    }
    data.resize(got);
    return ReadResult::Ok;
}

// Directory order is arbitrary, while the selection rules assume the files
// come oldest first. Normally a single file exists; two are left only when
// power was lost between writing the new file and removing the old one. With
// the list in ascending version order both rules pick the newer of two
// neighbours, including across the wrap from 9 to 0, so Store and Load sort
// before selecting (getFilesWithBase itself keeps directory order).
std::vector<std::string> byVersion(std::vector<std::string> files) {
    std::stable_sort(files.begin(), files.end(), [](const std::string& a, const std::string& b) {
        return Zel::Core::FileUtil::parseVersion(a) < Zel::Core::FileUtil::parseVersion(b);
    });
    return files;
}
}  // namespace

namespace Zel {
namespace Core {

bool FileUtil::Store(const std::string& dir, const std::string& base, const std::string& content) {
    std::string directory = withSlash(dir);
    std::vector<std::string> files;
    getFilesWithBase(directory, base + "_", files);
    files = byVersion(files);
    int version = getVersion(files);
    std::string digest = calcMd5Hash(content.data(), static_cast<unsigned>(content.size()));
    std::string name = base + "_" + std::to_string(version) + "_" + digest;
    return doWrite(files, directory, name, content);
}

bool FileUtil::Load(const std::string& dir, const std::string& base, std::string& content,
                    const Validator& usable) {
    std::string directory = withSlash(dir);
    std::vector<std::string> files;
    if (!getFilesWithBase(directory, base + "_", files)) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Could not get files");
        return false;
    }
    if (files.empty()) {
        // Nothing stored yet is how every first start begins, not a fault.
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "File list was empty");
        return false;
    }
    files = byVersion(files);
    // A file that fails its check is deleted by doRead; fall back to the next
    // candidate so an interrupted write does not lose the previous state.
    // A content that reads back intact but cannot be used is as corrupt as
    // one whose digest is wrong.
    while (!files.empty()) {
        std::string name = getLatestFile(files);
        std::string data;
        if (doRead(directory, name, data)) {
            if (!usable || usable(data)) {
                content = std::move(data);
                return true;
            }
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Bad file content");
            removeFile(directory + name);
        }
        files.erase(std::find(files.begin(), files.end(), name));
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityError, "No valid file");
    return false;
}

void FileUtil::Drop(const std::string& dir, const std::string& base) {
    std::string directory = withSlash(dir);
    removeFile(directory + base);
    std::vector<std::string> files;
    getFilesWithBase(directory, base + "_", files);
    for (const std::string& name : files) {
        removeFile(directory + name);
    }
}

bool FileUtil::getFilesWithBase(const std::string& dir, const std::string& prefix,
                                std::vector<std::string>& files) {
    std::string directory = withSlash(dir);
    std::unique_ptr<DIR, DirCloser> handle(opendir(directory.c_str()));
    if (!handle) {
        return false;
    }
    while (dirent* entry = readdir(handle.get())) {
        std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        // Not followed: a link is listed as itself, and refused when read.
        struct stat info {};
        if (lstat((directory + name).c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
            files.push_back(name);
        }
    }
    return true;
}

int FileUtil::parseVersion(const std::string& name) {
    size_t first = name.find('_');
    if (first == std::string::npos) {
        return -1;
    }
    size_t second = name.find('_', first + 1);
    if (second == std::string::npos) {
        return -1;
    }
    std::string text = name.substr(first + 1, second - first - 1);
    // Anything but a small number counts as unparsable, so that no version
    // arithmetic can overflow.
    errno = 0;
    long version = std::strtol(text.c_str(), nullptr, 10);
    if (errno != 0 || version < 0 || version > 999999) {
        return -1;
    }
    return static_cast<int>(version);
}

std::string FileUtil::parseHash(const std::string& name) {
    size_t last = name.rfind('_');
    return last == std::string::npos ? name : name.substr(last + 1);
}

int FileUtil::getVersion(const std::vector<std::string>& files) {
    if (files.empty()) {
        return 0;
    }
    int v = parseVersion(files[0]);
    for (size_t i = 1; i < files.size(); ++i) {
        int w = parseVersion(files[i]);
        if (w != v && w != v + 1) {
            break;
        }
        v = w;
    }
    return static_cast<uint8_t>(v > 8 ? 0 : v + 1);
}

std::string FileUtil::getLatestFile(const std::vector<std::string>& files) {
    if (files.empty()) {
        return std::string();
    }
    std::string candidate = files[0];
    int v = parseVersion(candidate);
    for (size_t i = 1; i < files.size(); ++i) {
        int w = parseVersion(files[i]);
        if (w - v > 1) {
            break;
        }
        // w - v == 1 moves forward; w <= v (the wrap from 9 to 0 among them)
        // takes the file but keeps v.
        if (w - v == 1) {
            v = w;
        }
        candidate = files[i];
    }
    return candidate;
}

std::string FileUtil::calcMd5Hash(const char* data, unsigned len) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digestLen = 0;
    if (EVP_Digest(data, len, digest, &digestLen, EVP_md5(), nullptr) != 1) {
        std::string error = OpenSslFirstError();
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "ERROR: %s", error.c_str());
        return std::string();
    }
    return HexUtil::Encode(digest, digestLen);
}

bool FileUtil::doWrite(const std::vector<std::string>& files, const std::string& dir,
                       const std::string& name, const std::string& content) {
    std::string path = dir + name;
    ZEL_LOG(ServiceCore, CategoryTest, SeverityDebug, "%s", path.c_str());
    {
        FileDescriptor fd(createNew(path));
        if (fd.get() < 0) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Problem %d opening file %s for writing.", errno, path.c_str());
            return false;
        }
        ssize_t written = 0;
        if (!writeAll(fd.get(), content, written)) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Problem writing file %s, wrote %d of %d", path.c_str(),
                    static_cast<int>(written), static_cast<int>(content.size()));
            // Keep the old state: a partial new file would only be rejected
            // by its digest later.
            removeFile(path);
            return false;
        }
    }
    // The new entry must be on disk before the old ones go.
    syncDirectory(dir);
    for (const std::string& old : files) {
        // Storing a state that is already there under the same name must not delete it.
        if (old != name) {
            removeFile(dir + old);
        }
    }
    return true;
}

bool FileUtil::doRead(const std::string& dir, const std::string& name, std::string& content) {
    std::string path = dir + name;
    ZEL_LOG(ServiceCore, CategoryTest, SeverityDebug, "%s", path.c_str());
    std::string data;
    std::string why;
    switch (readRegularFile(path, kMaxFileBytes, data, why)) {
        case ReadResult::CannotOpen:
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Problem opening file %s for reading", path.c_str());
            return false;
        case ReadResult::Refused:
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Refusing file %s: %s", path.c_str(),
                    why.c_str());
            removeFile(path);
            return false;
        case ReadResult::Failed:
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Bad inFile");
            removeFile(path);
            return false;
        case ReadResult::Ok:
            break;
    }
    if (calcMd5Hash(data.data(), static_cast<unsigned>(data.size())) != parseHash(name)) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Bad file hash");
        removeFile(path);
        return false;
    }
    content = std::move(data);
    return true;
}

}  // namespace Core
}  // namespace Zel

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
#include <fstream>
#include <iterator>
#include <memory>

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

void FileUtil::Store(const std::string& dir, const std::string& base, const std::string& content) {
    std::string directory = withSlash(dir);
    std::vector<std::string> files;
    getFilesWithBase(directory, base + "_", files);
    files = byVersion(files);
    int version = getVersion(files);
    std::string digest = calcMd5Hash(content.data(), static_cast<unsigned>(content.size()));
    std::string name = base + "_" + std::to_string(version) + "_" + digest;
    doWrite(files, directory, name, content);
}

bool FileUtil::Load(const std::string& dir, const std::string& base, std::string& content) {
    std::string directory = withSlash(dir);
    std::vector<std::string> files;
    if (!getFilesWithBase(directory, base + "_", files)) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Could not get files");
        return false;
    }
    if (files.empty()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "File list was empty");
        return false;
    }
    files = byVersion(files);
    // A file that fails its check is deleted by doRead; fall back to the next
    // candidate so an interrupted write does not lose the previous state.
    while (!files.empty()) {
        std::string name = getLatestFile(files);
        if (doRead(directory, name, content)) {
            return true;
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
        struct stat info {};
        if (stat((directory + name).c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
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
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
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
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(digestLen * 2);
    for (unsigned i = 0; i < digestLen; ++i) {
        hex.push_back(kHex[digest[i] >> 4]);
        hex.push_back(kHex[digest[i] & 0x0f]);
    }
    return hex;
}

void FileUtil::doWrite(const std::vector<std::string>& files, const std::string& dir,
                       const std::string& name, const std::string& content) {
    std::string path = dir + name;
    ZEL_LOG(ServiceCore, CategoryTest, SeverityDebug, "%s", path.c_str());
    {
        FileDescriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_DSYNC, 0664));
        if (fd.get() < 0) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Problem %d opening file %s for writing.", errno, path.c_str());
            return;
        }
        ssize_t written = write(fd.get(), content.data(), content.size());
        if (written != static_cast<ssize_t>(content.size())) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Problem writing file %s, wrote %d of %d", path.c_str(),
                    static_cast<int>(written), static_cast<int>(content.size()));
            // Keep the old state: a partial new file would only be rejected
            // by its digest later.
            removeFile(path);
            return;
        }
    }
    for (const std::string& old : files) {
        // Storing a state that is already there under the same name must not delete it.
        if (old != name) {
            removeFile(dir + old);
        }
    }
}

bool FileUtil::doRead(const std::string& dir, const std::string& name, std::string& content) {
    std::string path = dir + name;
    ZEL_LOG(ServiceCore, CategoryTest, SeverityDebug, "%s", path.c_str());
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Problem opening file %s for reading",
                path.c_str());
        return false;
    }
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Bad inFile");
        removeFile(path);
        return false;
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

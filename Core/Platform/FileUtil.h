#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Zel {
namespace Core {

// Persists a state as one file named base + "_" + version + "_" + MD5 of the
// content. A new state always goes to a new file; the old ones are removed
// only once it is written, so a power cut leaves the old or the new state.
class FileUtil {
public:
    // Far above any state the agent keeps; a larger file is corrupt.
    static constexpr size_t kMaxFileBytes = 1024 * 1024;

    // Says whether a content whose digest is right can be used.
    using Validator = std::function<bool(const std::string& content)>;

    // `dir` may end with "/" or not. `base` must not contain "_". False when
    // the new state could not be written (the old one is then kept).
    static bool Store(const std::string& dir, const std::string& base, const std::string& content);
    // The latest version that is intact and, with a validator, usable; every
    // one that is not is reported and deleted, and the next older one tried.
    static bool Load(const std::string& dir, const std::string& base, std::string& content,
                     const Validator& usable = nullptr);
    static void Drop(const std::string& dir, const std::string& base);

    // Appends the names of the non-directory entries starting with `prefix`,
    // in directory-reading order; false when the directory cannot be opened.
    static bool getFilesWithBase(const std::string& dir, const std::string& prefix,
                                 std::vector<std::string>& files);
    // The number between the first and second "_"; -1 when either is missing
    // or it is not a small non-negative number.
    static int parseVersion(const std::string& name);
    // The text after the last "_".
    static std::string parseHash(const std::string& name);
    // The version of the next write.
    static int getVersion(const std::vector<std::string>& files);
    // The file to read; empty for an empty list.
    static std::string getLatestFile(const std::vector<std::string>& files);
    // 32 lowercase hex digits.
    static std::string calcMd5Hash(const char* data, unsigned len);

    // Writes dir + name as a new regular file, makes the entry durable, then
    // removes the old `files` from `dir`.
    static bool doWrite(const std::vector<std::string>& files, const std::string& dir,
                        const std::string& name, const std::string& content);
    // Reads dir + name and checks it against the digest in its name; an entry
    // that is not a regular file of at most kMaxFileBytes, or that fails the
    // check, is deleted.
    static bool doRead(const std::string& dir, const std::string& name, std::string& content);
};

}  // namespace Core
}  // namespace Zel

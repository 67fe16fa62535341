#pragma once

#include <string>
#include <vector>

namespace Zel {
namespace Core {

// Persists a state as one file named base + "_" + version + "_" + MD5 of the
// content. A new state always goes to a new file; the old ones are removed
// only once it is written, so a power cut leaves the old or the new state.
class FileUtil {
public:
    // `dir` may end with "/" or not. `base` must not contain "_".
    static void Store(const std::string& dir, const std::string& base, const std::string& content);
    static bool Load(const std::string& dir, const std::string& base, std::string& content);
    static void Drop(const std::string& dir, const std::string& base);

    // Appends the names of the non-directory entries starting with `prefix`,
    // in directory-reading order; false when the directory cannot be opened.
    static bool getFilesWithBase(const std::string& dir, const std::string& prefix,
                                 std::vector<std::string>& files);
    // The number between the first and second "_"; -1 when either is missing.
    static int parseVersion(const std::string& name);
    // The text after the last "_".
    static std::string parseHash(const std::string& name);
    // The version of the next write.
    static int getVersion(const std::vector<std::string>& files);
    // The file to read; empty for an empty list.
    static std::string getLatestFile(const std::vector<std::string>& files);
    // 32 lowercase hex digits.
    static std::string calcMd5Hash(const char* data, unsigned len);

    // Writes dir + name, then removes the old `files` from `dir`.
    static void doWrite(const std::vector<std::string>& files, const std::string& dir,
                        const std::string& name, const std::string& content);
    // Reads dir + name and checks it against the digest in its name; a file
    // that fails is deleted.
    static bool doRead(const std::string& dir, const std::string& name, std::string& content);
};

}  // namespace Core
}  // namespace Zel

#pragma once

#include <json/value.h>

#include <string>

namespace ZelTest {

// A fresh directory under /tmp, removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string ReadFile(const std::string& path);
// Parses a JSON text; a text that does not parse fails the running test and gives null.
Json::Value ParseJson(const std::string& text);
void WriteFile(const std::string& path, const std::string& content);

}  // namespace ZelTest

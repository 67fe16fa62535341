#include "support/TempDir.h"

#include "Core/Platform/JsonUtil.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ZelTest {

TempDir::TempDir() {
    char pattern[] = "/tmp/zeltest.XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    if (!Zel::Core::JsonUtil::Parse(text, value)) {
        ADD_FAILURE() << "not JSON: " << text;
        return Json::Value();
    }
    return value;
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace ZelTest

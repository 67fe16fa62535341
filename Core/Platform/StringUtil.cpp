#include "Core/Platform/StringUtil.h"

#include <cctype>
#include <cstdio>
#include <vector>

namespace Zel {
namespace Core {

std::string StringUtil::Vform(const char* format, va_list args) {
    if (format == nullptr) {
        return std::string();
    }
    // Most log lines fit the first buffer; longer ones take a second pass with
    // the exact size vsnprintf reported.
    std::vector<char> buffer(256);
    while (true) {
        va_list copy;
        va_copy(copy, args);
        int needed = std::vsnprintf(buffer.data(), buffer.size(), format, copy);
        va_end(copy);
        if (needed < 0) {
            return std::string();
        }
        if (static_cast<size_t>(needed) < buffer.size()) {
            return std::string(buffer.data(), static_cast<size_t>(needed));
        }
        buffer.resize(static_cast<size_t>(needed) + 1);
    }
}

std::string StringUtil::ToUpperCase(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string StringUtil::ToString(int value) {
    return std::to_string(value);
}

}  // namespace Core
}  // namespace Zel

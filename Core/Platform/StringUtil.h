#pragma once

#include <cstdarg>
#include <string>

namespace Zel {
namespace Core {

class StringUtil {
public:
    // printf-style formatting into a string of whatever length the text needs.
    static std::string Vform(const char* format, va_list args);
    static std::string ToUpperCase(std::string text);
    static std::string ToString(int value);
};

}  // namespace Core
}  // namespace Zel

#pragma once

#include <string>

namespace Zel {
namespace Core {

// Logs "Function Enter" when a scope starts and "Function Return" when it ends,
// as (service, "flow", "debug") records; each is tested when it happens.
class FunctionTrace {
public:
    FunctionTrace(const std::string& function, const std::string& file, int line, int service);
    ~FunctionTrace();
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

private:
    std::string function_;
    std::string file_;
    int line_;
    int service_;
    static constexpr int kCategory = 1;  // "flow"
    static constexpr int kSeverity = 5;  // "debug"
};

}  // namespace Core
}  // namespace Zel

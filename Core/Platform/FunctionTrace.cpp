#include "Core/Platform/FunctionTrace.h"

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

FunctionTrace::FunctionTrace(const std::string& function, const std::string& file, int line,
                             int service)
    : function_(function), file_(file), line_(line), service_(service) {
    Logger& logger = Logger::Instance();
    if (logger.test(service_, kCategory, kSeverity)) {
        logger.log(file_, line_, function_, service_, kCategory, kSeverity, "Function Enter");
    }
}

FunctionTrace::~FunctionTrace() {
    Logger& logger = Logger::Instance();
    if (logger.test(service_, kCategory, kSeverity)) {
        logger.log(file_, line_, function_, service_, kCategory, kSeverity, "Function Return");
    }
}

}  // namespace Core
}  // namespace Zel

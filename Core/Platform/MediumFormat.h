#pragma once

#include "Core/Platform/Format.h"

namespace Zel {
namespace Core {

class MediumFormat : public Format {
public:
    std::string format(const LoggingEvent& event) override;
};

}  // namespace Core
}  // namespace Zel

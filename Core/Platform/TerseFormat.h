#pragma once

#include "Core/Platform/Format.h"

namespace Zel {
namespace Core {

class TerseFormat : public Format {
public:
    std::string format(const LoggingEvent& event) override;
};

}  // namespace Core
}  // namespace Zel

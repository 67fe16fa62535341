#pragma once

#include <cstdint>

namespace Zel {
namespace Sv {

// The "supportView" section of the configuration document.
class SupportViewConfig {
public:
    static constexpr unsigned kDefaultCodeDigits = 9;
    static constexpr unsigned kMinCodeDigits = 4;
    static constexpr unsigned kMaxCodeDigits = 16;

    explicit SupportViewConfig(const char* text);

    bool getPauseSessionOnTerm() const { return pauseSessionOnTerm_; }
    bool getAllowRemoteSession() const { return allowRemoteSession_; }
    unsigned getSessionCodeDigits() const { return sessionCodeDigits_; }

    void logStateDebug() const;

private:
    // Hook for device builds; nothing here.
    void setCustomValues();

    bool pauseSessionOnTerm_ = true;
    bool allowRemoteSession_ = false;
    uint32_t sessionCodeDigits_ = kDefaultCodeDigits;
};

}  // namespace Sv
}  // namespace Zel

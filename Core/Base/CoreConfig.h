#pragma once

#include <string>

namespace Zel {
namespace Core {

// The "core" section of the configuration document. Building it also hands the
// "loggers" and "injectors" sections to their owners, but only when the
// document has a "core" section.
class CoreConfig {
public:
    // A null text, a text that is not JSON or a document without "core" gives
    // the defaults. Both paths always end in "/" afterwards.
    explicit CoreConfig(const char* text);

    bool getSkipCurlGlobalInit() const { return skipCurlGlobalInit_; }
    bool getSkipSslCryptoInit() const { return skipSslCryptoInit_; }
    const std::string& getPersistentPath() const { return persistentPath_; }
    const std::string& getTemporaryPath() const { return temporaryPath_; }
    bool getEnableSwVersionSimulation() const { return enableSwVersionSimulation_; }
    const std::string& getInitialSimulatedSwVersion() const { return initialSimulatedSwVersion_; }

    void logStateDebug() const;

private:
    // Device builds change the defaults here; runs before the document is read.
    void setCustomValues();

    bool skipCurlGlobalInit_ = false;
    bool skipSslCryptoInit_ = false;
    std::string persistentPath_;
    std::string temporaryPath_;
    bool enableSwVersionSimulation_ = false;
    std::string initialSimulatedSwVersion_ = "1.0";
};

}  // namespace Core
}  // namespace Zel

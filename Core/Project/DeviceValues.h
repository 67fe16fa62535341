#pragma once

#include <map>
#include <string>

namespace Zel {
namespace Core {

class CoreConfig;

// The values that describe the television to the cloud. Each field is filled
// in three layers, later ones winning:
//   1. defaults read from the machine (setCustomValues());
//   2. the vendor plug-in's "createDeviceValuesExt", when it exists;
//   3. the keys present in the device document given to ZelInit.
// A field the document leaves out therefore keeps the plug-in's value, and
// only such fields are read from the machine (some take a shell command).
class DeviceValues {
public:
    // `config` may be null (no software version simulation then).
    DeviceValues(const char* text, const CoreConfig* config);

    const std::string& getId() const { return id_; }
    const std::string& getModel() const { return model_; }
    const std::string& getSubModel() const { return subModel_; }
    const std::string& getPlatform() const { return platform_; }
    const std::string& getBrand() const { return brand_; }
    const std::string& getEsn() const { return esn_; }
    const std::string& getMac() const { return mac_; }
    const std::string& getSwVersion() const { return swVersion_; }

    // With software version simulation on, records the version the device
    // now "runs" (kept in the "swVersion" file of the persistent path, so it
    // survives restarts). Returns false when simulation is off.
    bool setSimulatedSwVersion(const std::string& version);

    void logStateDebug() const;

    // Base name of the persisted file holding the simulated version.
    static const char* const kSwVersionBaseName;

    // The string members of a device document, by key; anything else is left out.
    static std::map<std::string, std::string> ReadDocument(const char* text);

private:
    void setCustomValues();
    void applyPlugin();
    bool supplied(const char* key) const { return document_.count(key) != 0; }

    const CoreConfig* config_;
    std::map<std::string, std::string> document_;
    std::string id_;
    std::string model_;
    std::string subModel_;
    std::string platform_;
    std::string brand_;
    std::string esn_;
    std::string mac_;
    std::string swVersion_;
};

}  // namespace Core
}  // namespace Zel

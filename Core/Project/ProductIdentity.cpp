#include "Core/Project/ProductIdentity.h"

#include <json/reader.h>
#include <json/value.h>

#include <cstring>
#include <memory>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/Logger.h"
#include "Core/Project/KorvanePlugin.h"

namespace {
constexpr const char* kLogSource = "Project/ProductIdentity";

void readString(const Json::Value& root, const char* key, std::string& field) {
    const Json::Value& value = root[key];
    if (!value.isNull() && value.isConvertibleTo(Json::stringValue)) {
        field = value.asString();
    }
}

}  // namespace

namespace Zel {
namespace Core {

ProductIdentity::ProductIdentity(const char* text) {
    setCustomValues();

    if (text != nullptr) {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        std::string errors;
        if (reader->parse(text, text + std::strlen(text), &root, &errors) && root.isObject()) {
            readString(root, "key", encodedKey_);
            readString(root, "cert", encodedCert_);
            readString(root, "trust", encodedTrust_);
            readString(root, "password", password_);
        }
    }

    // Decoded once here; the TLS set-up and the update checks want PEM text.
    // The field name goes to the log, never its content.
    struct Field {
        const char* name;
        const std::string& encoded;
        std::string& decoded;
    };
    const Field fields[] = {{"key", encodedKey_, key_},
                            {"cert", encodedCert_, cert_},
                            {"trust", encodedTrust_, trust_}};
    for (const Field& field : fields) {
        field.decoded.clear();
        if (field.encoded.empty()) {
            continue;
        }
        if (!Base64Util::Decode(field.encoded, field.decoded)) {
            field.decoded.clear();
            valid_ = false;
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "Identity value \"%s\" is not valid base64", field.name);
        }
    }
}

// The key's pass phrase defaults to what the vendor plug-in supplies.
void ProductIdentity::setCustomValues() {
    std::string password;
    if (korvane::KorvanePlugin::Instance().getZelPassword(password)) {
        password_ = password;
    } else {
        password_.clear();
    }
}

}  // namespace Core
}  // namespace Zel

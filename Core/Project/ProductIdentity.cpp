#include "Core/Project/ProductIdentity.h"

#include <json/value.h>

#include "Core/Platform/Base64Util.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Project/KorvanePlugin.h"

namespace {
constexpr const char* kLogSource = "Project/ProductIdentity";
}  // namespace

namespace Zel {
namespace Core {

ProductIdentity::ProductIdentity(const char* text) {
    setCustomValues();

    Json::Value root;
    if (JsonUtil::Parse(text, root)) {
        JsonUtil::ReadString(root, "key", encodedKey_);
        JsonUtil::ReadString(root, "cert", encodedCert_);
        JsonUtil::ReadString(root, "trust", encodedTrust_);
        JsonUtil::ReadString(root, "password", password_);
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
    credentials_ = std::make_unique<TlsCredentials>(trust_, cert_, key_, password_);
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

#include "SupportView/Project/KorvaneCommand.h"

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/KorvaneCommand";

// What the plug-in's write function fills. Its text is checked like any
// other document from outside: only an object is taken.
struct Output {
    Json::Value* target;
    const std::string* name;
};

void writeOutput(void* context, const char* json) {
    auto* output = static_cast<Output*>(context);
    Json::Value parsed;
    if (json != nullptr && JsonUtil::Parse(json, parsed) && parsed.isObject()) {
        for (const std::string& key : parsed.getMemberNames()) {
            (*output->target)[key] = parsed[key];
        }
    } else {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s wrote an output that is not an object",
                output->name->c_str());
    }
}
}  // namespace

KorvaneCommand::KorvaneCommand(const ZelKorvaneCommand& record)
    : name_(record.name != nullptr ? record.name : ""), record_(record) {
    record_.name = nullptr;  // the copy above is the one to use
}

CommandHandler* KorvaneCommand::create() const {
    return new CommandKorvane(*this);
}

unsigned KorvaneCommand::run(CommandOperation operation, const Json::Value& inputs,
                             Json::Value& out) const {
    std::string text = JsonUtil::Compact(inputs);
    Output output{&out, &name_};
    return record_.handler(record_.context, operation, text.c_str(), writeOutput, &output);
}

unsigned CommandKorvane::descriptionHandler(Json::Value& outputs) {
    return korvane_.run(CommandOperationDescription, Json::Value(), outputs);
}

unsigned CommandKorvane::executeHandler(const Json::Value& inputs, Json::Value& data) {
    return korvane_.run(CommandOperationExecute, inputs, data);
}

unsigned CommandKorvane::getHandler(const Json::Value& inputs, Json::Value& data) {
    return korvane_.run(CommandOperationGet, inputs, data);
}

unsigned CommandKorvane::sessionTerminateHandler() {
    Json::Value ignored(Json::objectValue);
    return korvane_.run(CommandOperationSessionTerminate, Json::Value(), ignored);
}

}  // namespace Sv
}  // namespace Zel

#include "SupportView/Project/MediaStreamCommands.h"

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "SupportView/Platform/Video.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/MediaStreamCommands";
constexpr unsigned kOperations =
    CommandOperationExecute | CommandOperationGet | CommandOperationDescription;

// One input or output of a command's description.
struct Descriptor {
    const char* key;
    int order;
    const char* type;
    Json::Value defaultValue;
    bool required;
    bool readOnly;
    Json::Value values = Json::Value();
    Json::Value minimum = Json::Value();
    Json::Value maximum = Json::Value();
};

Json::Value describe(std::initializer_list<Descriptor> descriptors) {
    Json::Value object(Json::objectValue);
    for (const Descriptor& d : descriptors) {
        Json::Value& entry = object[d.key];
        entry["ORDER"] = d.order;
        entry["TYPE"] = d.type;
        entry["DEFAULT"] = d.defaultValue;
        entry["REQUIRED"] = d.required ? "true" : "false";
        entry["VISIBILITY"] = "true";
        entry["READONLY"] = d.readOnly ? "true" : "false";
        if (!d.values.isNull()) {
            entry["VALUES"] = d.values;
        }
        if (!d.minimum.isNull()) {
            entry["MINIMUM_VALUE"] = d.minimum;
            entry["MAXIMUM_VALUE"] = d.maximum;
        }
    }
    return object;
}

Json::Value list(std::initializer_list<const char*> names) {
    Json::Value array(Json::arrayValue);
    for (const char* name : names) {
        array.append(name);
    }
    return array;
}

unsigned invalidParameter() {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter.");
    return CommandResultInvalidParameter;
}

// Optional members: absent keeps `field`; present must have the type.
bool optionalUInt(const Json::Value& inputs, const char* key, unsigned& field) {
    const Json::Value& value = JsonUtil::Member(inputs, key);
    uint32_t read = field;
    if (!value.isNull() && !JsonUtil::GetUInt32(value, read)) {
        return false;
    }
    field = read;
    return true;
}
bool optionalString(const Json::Value& inputs, const char* key, std::string& field) {
    const Json::Value& value = JsonUtil::Member(inputs, key);
    return value.isNull() || JsonUtil::GetString(value, field);
}
bool optionalBool(const Json::Value& inputs, const char* key, bool& field) {
    const Json::Value& value = JsonUtil::Member(inputs, key);
    return value.isNull() || JsonUtil::GetBool(value, field);
}

void buildResponseData(const Video::VideoParameters& p, Json::Value& data) {
    data["FRAME_RATE_NUMERATOR"] = p.frameRateNumerator;
    data["FRAME_RATE_DENOMINATOR"] = p.frameRateDenominator;
    data["VIDEO_WIDTH"] = p.width;
    data["VIDEO_HEIGHT"] = p.height;
    data["STREAM_FORMAT"]["CONTAINER"] = p.container;
    data["STREAM_FORMAT"]["VIDEO_CODEC"] = p.codec;
    data["VIDEO_CODEC_QUALITY"] = p.quality;
    data["VIDEO_CODEC_KEYFRAME_INTERVAL"] = p.keyframeInterval;
    data["VIDEO_SCALING_ALGORITHM"] = p.scalingAlgorithm;
    data["DISPLAY_TIMESTAMP_OVERLAY"] = p.timestampOverlay;
}
}  // namespace

MediaStreamParams::MediaStreamParams()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS", 1, 1, 250, kOperations}) {}

unsigned CommandMediaStreamParams::descriptionHandler(Json::Value& outputs) {
    Video::VideoParameters d;
    Json::Value format(Json::objectValue);
    format["CONTAINER"] = d.container;
    format["VIDEO_CODEC"] = d.codec;
    Json::Value described = describe({
        {"FRAME_RATE_NUMERATOR", 0, "NUMERIC", d.frameRateNumerator, false, false},
        {"FRAME_RATE_DENOMINATOR", 1, "NUMERIC", d.frameRateDenominator, false, false},
        {"VIDEO_WIDTH", 2, "NUMERIC", d.width, false, false},
        {"VIDEO_HEIGHT", 3, "NUMERIC", d.height, false, false},
        {"STREAM_FORMAT", 4, "OBJECT", format, false, false},
        {"VIDEO_CODEC_QUALITY", 5, "NUMERIC", d.quality, false, false, Json::Value(), 50, 100},
        {"VIDEO_CODEC_KEYFRAME_INTERVAL", 6, "NUMERIC", d.keyframeInterval, false, false},
        {"VIDEO_SCALING_ALGORITHM", 7, "STRING", d.scalingAlgorithm, false, false,
         list({"NEAREST", "BILINEAR", "LANCZOS"})},
        {"DISPLAY_TIMESTAMP_OVERLAY", 8, "BOOL", d.timestampOverlay, false, false},
    });
    outputs["INPUTS"] = described;
    outputs["OUTPUTS"] = described;
    return CommandResultSuccess;
}

unsigned CommandMediaStreamParams::getHandler(const Json::Value&, Json::Value& data) {
    Video::VideoParameters parameters;
    Video::Instance().getVideoParameters(parameters);
    buildResponseData(parameters, data);
    return CommandResultSuccess;
}

unsigned CommandMediaStreamParams::executeHandler(const Json::Value& inputs, Json::Value& data) {
    Video& video = Video::Instance();
    Video::VideoParameters p;
    video.getVideoParameters(p);
    const Json::Value& format = JsonUtil::Member(inputs, "STREAM_FORMAT");
    bool read = optionalUInt(inputs, "FRAME_RATE_NUMERATOR", p.frameRateNumerator) &&
                optionalUInt(inputs, "FRAME_RATE_DENOMINATOR", p.frameRateDenominator) &&
                optionalUInt(inputs, "VIDEO_WIDTH", p.width) &&
                optionalUInt(inputs, "VIDEO_HEIGHT", p.height) &&
                (format.isNull() || format.isObject()) &&
                optionalString(format, "CONTAINER", p.container) &&
                optionalString(format, "VIDEO_CODEC", p.codec) &&
                optionalUInt(inputs, "VIDEO_CODEC_QUALITY", p.quality) &&
                optionalUInt(inputs, "VIDEO_CODEC_KEYFRAME_INTERVAL", p.keyframeInterval) &&
                optionalString(inputs, "VIDEO_SCALING_ALGORITHM", p.scalingAlgorithm) &&
                optionalBool(inputs, "DISPLAY_TIMESTAMP_OVERLAY", p.timestampOverlay);
    if (!read || !video.setVideoParameters(p)) {
        return invalidParameter();
    }
    buildResponseData(p, data);
    return CommandResultSuccess;
}

MediaStreamTransportControl::MediaStreamTransportControl()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL", 1, 1, 250, kOperations}) {}

unsigned CommandMediaStreamTransportControl::descriptionHandler(Json::Value& outputs) {
    Json::Value actions = list({Video::kRunning, Video::kSendKeyframeNext, Video::kShutDown});
    outputs["INPUTS"] = describe({
        {"ACTION", 0, "STRING", Video::kShutDown, true, false, actions},
        {"RELAY_SERVER_ADDRESS", 1, "STRING", "", true, false},
        {"RELAY_SERVER_PORT", 2, "NUMERIC", 0, true, false, Json::Value(), 1, 65535},
        {"RELAY_SERVER_URI", 3, "STRING", "/", false, false},
        {"SECURE_MEDIA_STREAM", 4, "BOOL", false, false, false},
    });
    outputs["OUTPUTS"] = describe({
        {"STATE", -1, "STRING", Video::kShutDown, false, true,
         list({Video::kRunning, Video::kShutDown})},
    });
    return CommandResultSuccess;
}

unsigned CommandMediaStreamTransportControl::getHandler(const Json::Value&, Json::Value& data) {
    data["STATE"] = Video::Instance().getMediaStreamParametersState();
    return CommandResultSuccess;
}

unsigned CommandMediaStreamTransportControl::executeHandler(const Json::Value& inputs,
                                                            Json::Value& data) {
    Video& video = Video::Instance();
    std::string action;
    if (!JsonUtil::GetString(JsonUtil::Member(inputs, "ACTION"), action)) {
        return invalidParameter();
    }
    bool done;
    if (JsonUtil::Member(inputs, "RELAY_SERVER_ADDRESS").isNull() &&
        JsonUtil::Member(inputs, "RELAY_SERVER_PORT").isNull()) {
        done = video.setMediaStreamParameters(action);
    } else {
        Video::ServerParameters server;
        bool read = optionalString(inputs, "RELAY_SERVER_ADDRESS", server.address) &&
                    optionalUInt(inputs, "RELAY_SERVER_PORT", server.port) &&
                    optionalString(inputs, "RELAY_SERVER_URI", server.uri) &&
                    optionalBool(inputs, "SECURE_MEDIA_STREAM", server.secure);
        done = read && video.setMediaStreamParameters(action, server);
    }
    if (!done) {
        return invalidParameter();
    }
    data["STATE"] = video.getMediaStreamParametersState();
    return CommandResultSuccess;
}

MediaStreamVideoLayers::MediaStreamVideoLayers()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS", 1, 1, 250, kOperations}) {}

unsigned CommandMediaStreamVideoLayers::descriptionHandler(Json::Value& outputs) {
    Json::Value layers = list({"GRAPHICS", "VIDEO", "GRAPHICS_VIDEO"});
    outputs["INPUTS"] = describe({{"LAYERS", -1, "OBJECT", "GRAPHICS_VIDEO", true, false, layers}});
    outputs["OUTPUTS"] = describe({{"LAYER", -1, "STRING", "GRAPHICS_VIDEO", false, true, layers}});
    return CommandResultSuccess;
}

unsigned CommandMediaStreamVideoLayers::getHandler(const Json::Value&, Json::Value& data) {
    std::string layer = Video::Instance().getVideoLayer();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Media Stream Layer: %s", layer.c_str());
    data["LAYER"] = layer;
    return CommandResultSuccess;
}

unsigned CommandMediaStreamVideoLayers::executeHandler(const Json::Value& inputs,
                                                       Json::Value& data) {
    // "LAYERS" or "LAYER": a name, or a list holding one.
    const Json::Value* value = &JsonUtil::Member(inputs, "LAYERS");
    if (value->isNull()) {
        value = &JsonUtil::Member(inputs, "LAYER");
    }
    if (value->isArray() && value->size() == 1) {
        value = &(*value)[0];
    }
    std::string layer;
    if (!JsonUtil::GetString(*value, layer)) {
        return invalidParameter();
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Media Stream Layer: %s", layer.c_str());
    if (!Video::Instance().setVideoLayer(layer)) {
        return invalidParameter();
    }
    data["LAYER"] = layer;
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel

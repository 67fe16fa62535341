#include "SupportView/Project/VideoUtils.h"

#include "Core/Platform/Logger.h"
#include "Core/Project/KorvanePlugin.h"
#include "SupportView/Platform/Video.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/VideoUtils";

struct Layer {
    const char* name;
    unsigned code;
};
constexpr Layer kLayers[] = {
    {"GRAPHICS", ZEL_KORVANE_LAYER_GRAPHICS},
    {"VIDEO", ZEL_KORVANE_LAYER_VIDEO},
    {"GRAPHICS_VIDEO", ZEL_KORVANE_LAYER_GRAPHICS_VIDEO},
};

// The largest frame side we believe from a plug-in.
constexpr uint32_t kMaxSide = 8192;
}  // namespace

const char* VideoUtils::LayerName(unsigned code) {
    for (const Layer& layer : kLayers) {
        if (layer.code == code) {
            return layer.name;
        }
    }
    return "";
}

bool VideoUtils::LayerCode(const std::string& name, unsigned& code) {
    for (const Layer& layer : kLayers) {
        if (name == layer.name) {
            code = layer.code;
            return true;
        }
    }
    return false;
}

int VideoUtils::fillVideoFrameBuffer(uint8_t* buffer, uint32_t size) {
    korvane::KorvanePlugin& plugin = korvane::KorvanePlugin::Instance();
    unsigned layer = Video::Instance().layerCode();
    int result = -1;
    if (plugin.fillVideoBufferExt != nullptr) {
        result = plugin.fillVideoBufferExt(buffer, size, layer);
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "size is %u, layer is %s, iRet is %d", size,
            LayerName(layer), result);
    return result;
}

std::string VideoUtils::getGstreamerPluginPath() {
    korvane::KorvanePlugin& plugin = korvane::KorvanePlugin::Instance();
    const char* path =
        plugin.getGstreamerPathExt != nullptr ? plugin.getGstreamerPathExt() : nullptr;
    return path != nullptr ? path : "";
}

bool VideoUtils::getSourceFrameDimensions(unsigned& width, unsigned& height, unsigned& visibleWidth,
                                          unsigned& visibleHeight) {
    korvane::KorvanePlugin& plugin = korvane::KorvanePlugin::Instance();
    if (plugin.getVideoWidthExt == nullptr || plugin.getVideoHeightExt == nullptr) {
        return false;
    }
    uint32_t visibleW = 0;
    uint32_t visibleH = 0;
    uint32_t w = plugin.getVideoWidthExt(&visibleW);
    uint32_t h = plugin.getVideoHeightExt(&visibleH);
    if (w == 0 || h == 0 || w > kMaxSide || h > kMaxSide) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Frame size %ux%u is not usable.", w, h);
        return false;
    }
    width = w;
    height = h;
    // A visible part the frame does not have is taken as the whole frame.
    visibleWidth = (visibleW == 0 || visibleW > w) ? w : visibleW;
    visibleHeight = (visibleH == 0 || visibleH > h) ? h : visibleH;
    return true;
}

void VideoUtils::showCursor(bool show) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
            "Stubbed implementation of showing/hiding the cursor: %s", show ? "show" : "hide");
}

}  // namespace Sv
}  // namespace Zel

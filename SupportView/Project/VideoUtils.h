#pragma once

#include <cstdint>
#include <string>

namespace Zel {
namespace Sv {

// What screen streaming needs from the device, through the vendor plug-in.
class VideoUtils {
public:
    // Layer names and the plug-in's codes for them.
    static const char* LayerName(unsigned code);
    static bool LayerCode(const std::string& name, unsigned& code);

    // One RGBA frame of the current layer; the bytes written, or a negative
    // value when there is no frame.
    static int fillVideoFrameBuffer(uint8_t* buffer, uint32_t size);
    // Where the GStreamer plug-in files are; empty when the plug-in does not say.
    static std::string getGstreamerPluginPath();
    // The frames' size and the part of it that shows picture; false when
    // the plug-in delivers no frames.
    static bool getSourceFrameDimensions(unsigned& width, unsigned& height, unsigned& visibleWidth,
                                         unsigned& visibleHeight);
    static void showCursor(bool show);
};

}  // namespace Sv
}  // namespace Zel

#pragma once

#include <gst/gst.h>

namespace Zel {
namespace Sv {

// A GStreamer task pool that runs each streaming task on a thread of its own
// and joins it when the task is joined. GLib's shared pool would keep the
// thread around, idle, after the stream has gone.
GstTaskPool* NewStreamTaskPool();

}  // namespace Sv
}  // namespace Zel

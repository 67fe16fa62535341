#pragma once

#include <cstdint>

// What the process holds at one moment.
struct ResourceSample {
    unsigned threads = 0;  // /proc/self/task, GLib's idle pool threads left out
    unsigned fds = 0;      // /proc/self/fd
    uint64_t rssKiB = 0;   // VmRSS
    uint64_t heapKiB = 0;  // malloc's bytes in use, mmapped chunks included
};

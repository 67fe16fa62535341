#pragma once

#include "ResourceSample.h"

// Reads the process's own figures from /proc/self and malloc.
class ResourceSampler {
public:
    // One reading; false when /proc cannot be read.
    static bool ReadOnce(ResourceSample& sample);

    // The lowest value of each figure over `readings` readings `intervalMs`
    // apart, after handing freed memory back to the system. A thread or
    // connection that comes and goes (a task thread finishing, a poll in
    // flight) is not counted; anything leaked is there every time.
    static bool ReadQuiet(ResourceSample& sample, unsigned readings, unsigned intervalMs);

private:
    static bool CountThreads(unsigned& threads);
    static bool CountFds(unsigned& fds);
    static bool ReadRss(uint64_t& kib);
};

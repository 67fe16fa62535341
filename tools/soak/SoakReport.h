#pragma once

#include <cstdint>
#include <vector>

#include "ResourceSample.h"

// The table of samples, printed row by row as they come, and the verdict:
// the last row against the first, taken after the warm-up.
class SoakReport {
public:
    SoakReport(uint64_t rssToleranceKiB, uint64_t heapToleranceKiB);

    void add(double minutes, unsigned rounds, const ResourceSample& sample);
    bool empty() const { return rows_.empty(); }
    // Prints why, and true when threads and descriptors came back and RSS
    // and heap grew no more than their tolerances.
    bool judge() const;

private:
    struct Row {
        double minutes;
        unsigned rounds;
        ResourceSample sample;
    };

    uint64_t rssToleranceKiB_;
    uint64_t heapToleranceKiB_;
    std::vector<Row> rows_;
};

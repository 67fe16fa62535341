#include "SoakReport.h"

#include <cstdio>

namespace {
long long difference(uint64_t now, uint64_t start) {
    return static_cast<long long>(now) - static_cast<long long>(start);
}
}  // namespace

SoakReport::SoakReport(uint64_t rssToleranceKiB, uint64_t heapToleranceKiB)
    : rssToleranceKiB_(rssToleranceKiB), heapToleranceKiB_(heapToleranceKiB) {
    // Made room for now, so that the table itself does not show as growth.
    rows_.reserve(256);
}

void SoakReport::add(double minutes, unsigned rounds, const ResourceSample& sample) {
    if (rows_.empty()) {
        std::fprintf(stderr, "soak: %7s %6s %7s %4s %9s %8s %9s %8s\n", "minutes", "rounds",
                     "threads", "fds", "RSS KiB", "+/-", "heap KiB", "+/-");
    }
    rows_.push_back(Row{minutes, rounds, sample});
    const ResourceSample& start = rows_.front().sample;
    std::fprintf(stderr, "soak: %7.1f %6u %7u %4u %9llu %+8lld %9llu %+8lld\n", minutes, rounds,
                 sample.threads, sample.fds, static_cast<unsigned long long>(sample.rssKiB),
                 difference(sample.rssKiB, start.rssKiB),
                 static_cast<unsigned long long>(sample.heapKiB),
                 difference(sample.heapKiB, start.heapKiB));
    std::fflush(stderr);
}

bool SoakReport::judge() const {
    if (rows_.size() < 2) {
        std::fprintf(stderr, "soak: FAIL: fewer than two samples, nothing to compare\n");
        return false;
    }
    const ResourceSample& start = rows_.front().sample;
    const ResourceSample& end = rows_.back().sample;
    bool pass = true;
    // Fewer at the end is no leak: a connection the first sample caught may
    // have been closed since. It is said, not failed.
    if (end.threads != start.threads) {
        std::fprintf(stderr, "soak: %s: threads %u at the start, %u at the end\n",
                     end.threads > start.threads ? "FAIL" : "note", start.threads, end.threads);
        pass = pass && end.threads < start.threads;
    }
    if (end.fds != start.fds) {
        std::fprintf(stderr, "soak: %s: descriptors %u at the start, %u at the end\n",
                     end.fds > start.fds ? "FAIL" : "note", start.fds, end.fds);
        pass = pass && end.fds < start.fds;
    }
    if (difference(end.rssKiB, start.rssKiB) > static_cast<long long>(rssToleranceKiB_)) {
        std::fprintf(stderr, "soak: FAIL: RSS grew by %lld KiB (tolerance %llu KiB)\n",
                     difference(end.rssKiB, start.rssKiB),
                     static_cast<unsigned long long>(rssToleranceKiB_));
        pass = false;
    }
    if (difference(end.heapKiB, start.heapKiB) > static_cast<long long>(heapToleranceKiB_)) {
        std::fprintf(stderr, "soak: FAIL: heap in use grew by %lld KiB (tolerance %llu KiB)\n",
                     difference(end.heapKiB, start.heapKiB),
                     static_cast<unsigned long long>(heapToleranceKiB_));
        pass = false;
    }
    if (pass) {
        std::fprintf(
            stderr,
            "soak: PASS: %u rounds in %.1f minutes; no more threads or descriptors than "
            "at the start, RSS %+lld KiB (tolerance %llu), heap %+lld KiB (tolerance %llu)\n",
            rows_.back().rounds - rows_.front().rounds, rows_.back().minutes,
            difference(end.rssKiB, start.rssKiB), static_cast<unsigned long long>(rssToleranceKiB_),
            difference(end.heapKiB, start.heapKiB),
            static_cast<unsigned long long>(heapToleranceKiB_));
    }
    return pass;
}

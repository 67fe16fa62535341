#include "ResourceSampler.h"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

bool ResourceSampler::CountThreads(unsigned& threads) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return false;
    }
    threads = 0;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        // GLib's shared pool keeps up to two idle threads ("pool-...") for a
        // while after a stream used them, then lets them go; their number
        // depends on when we look, not on what leaked.
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        if (name.rfind("pool-", 0) != 0) {
            ++threads;
        }
    }
    closedir(tasks);
    return true;
}

bool ResourceSampler::CountFds(unsigned& fds) {
    DIR* list = opendir("/proc/self/fd");
    if (list == nullptr) {
        return false;
    }
    unsigned entries = 0;
    while (dirent* entry = readdir(list)) {
        if (entry->d_name[0] != '.') {
            ++entries;
        }
    }
    closedir(list);
    // The directory's own descriptor is among them.
    fds = entries > 0 ? entries - 1 : 0;
    return true;
}

bool ResourceSampler::ReadRss(uint64_t& kib) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            char* end = nullptr;
            kib = std::strtoull(line.c_str() + 6, &end, 10);
            return end != line.c_str() + 6;
        }
    }
    return false;
}

bool ResourceSampler::ReadOnce(ResourceSample& sample) {
    struct mallinfo2 info = mallinfo2();
    sample.heapKiB = (info.uordblks + info.hblkhd) / 1024;
    return CountThreads(sample.threads) && CountFds(sample.fds) && ReadRss(sample.rssKiB);
}

bool ResourceSampler::ReadQuiet(ResourceSample& sample, unsigned readings, unsigned intervalMs) {
    // Only whole free pages go back, so what stays is memory in use or
    // fragmentation; the soak's own parsing of the cloud's growing answers
    // would otherwise linger in RSS.
    malloc_trim(0);
    bool any = false;
    for (unsigned i = 0; i < readings; ++i) {
        if (i > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        }
        ResourceSample now;
        if (!ReadOnce(now)) {
            return false;
        }
        if (!any) {
            sample = now;
            any = true;
        }
        sample.threads = std::min(sample.threads, now.threads);
        sample.fds = std::min(sample.fds, now.fds);
        sample.rssKiB = std::min(sample.rssKiB, now.rssKiB);
        sample.heapKiB = std::min(sample.heapKiB, now.heapKiB);
    }
    return any;
}

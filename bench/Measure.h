#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// Seconds on a clock that never jumps.
inline double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// The value that `share` of the others are not above. REQUIRES: at least one value.
inline double quantile(std::vector<double> values, double share) {
    const auto place = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(place);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

/// REQUIRES: at least one value.
inline double median(std::vector<double> values) {
    return quantile(std::move(values), 0.5);
}

/// Seconds that the processor worked for this process, its children left out.
inline double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// A figure of /proc/self/status in bytes, e.g. "VmRSS" now or "VmHWM" at the most so far; 0 where
/// there is none.
inline double memory(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1)) * 1024;
    }
    return 0;
}

/// One result as script/bench reads it: name, tab, value.
inline void report(const std::string& name, double value) {
    std::printf("%s\t%.6g\n", name.c_str(), value);
}

}  // namespace bench

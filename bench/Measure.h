#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace bench {

/// Seconds on a clock that never jumps.
inline double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// REQUIRES: at least one value.
inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
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

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace tests {

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A folder of its own for one test, on the file system that TMPDIR names (the build folder's where
/// it is not set, so that tests run on a real disk), removed afterwards.
class ScratchFolder {
  public:
    ScratchFolder() : ScratchFolder(usualParent()) {}
    explicit ScratchFolder(const std::filesystem::path& parent) {
        std::string pattern = parent / "tidewell-XXXXXX";
        if (!mkdtemp(pattern.data())) std::abort();
        path_ = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(std::string_view name) const {
        return path_ / name;
    }

    std::filesystem::path makeFolder(std::string_view name) const {
        std::filesystem::create_directories(path_ / name);
        return path_ / name;
    }
    std::filesystem::path makeFile(std::string_view name, std::string_view content = "x") const {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name, std::ios::binary) << content;
        return path_ / name;
    }

  private:
    static std::filesystem::path usualParent() {
        const char* chosen = std::getenv("TMPDIR");
        return chosen ? std::filesystem::path(chosen) : std::filesystem::current_path();
    }

    std::filesystem::path path_;
};

}  // namespace tests

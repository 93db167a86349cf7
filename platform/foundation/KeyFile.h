#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// A file of groups and keys as desktops use it for settings and icon themes:
///
///     [Group]
///     key=value
///
/// Values stand as they are, without escapes; lines that are none of that are passed over, and the
/// first of two equal keys counts. A plain value.
class KeyFile {
  public:
    /// Empty where the file is missing, no regular file or larger than 1 MiB. Blocks for the disk.
    [[nodiscard]] static KeyFile read(const std::string& path);
    [[nodiscard]] static KeyFile parse(std::string_view text);

    [[nodiscard]] bool isEmpty() const { return values_.empty(); }
    [[nodiscard]] std::optional<std::string> value(std::string_view group,
                                                   std::string_view key) const;
    /// The value's parts between commas, without blanks around them; empty ones are left out.
    [[nodiscard]] std::vector<std::string> list(std::string_view group, std::string_view key) const;
    /// A whole number from 1 to 65,535.
    [[nodiscard]] std::optional<int> positive(std::string_view group, std::string_view key) const;

    /// Takes from `other` what this one does not have.
    void addMissing(const KeyFile& other);

  private:
    std::map<std::string, std::map<std::string, std::string, std::less<>>, std::less<>> values_;
};

}  // namespace platform

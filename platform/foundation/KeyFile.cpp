#include "platform/foundation/KeyFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>

namespace platform {

namespace {

constexpr std::size_t largestFile = 1 << 20;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The part of `rest` before `separator`, which is taken with it.
std::string_view popUpTo(char separator, std::string_view& rest) {
    const auto end = rest.find(separator);
    const auto part = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    return part;
}

}  // namespace

KeyFile KeyFile::read(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return {};
    struct stat status {};
    std::string text;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        text.resize(largestFile + 1);
        std::size_t size = 0;
        for (ssize_t count = 1; count > 0 && size < text.size();) {
            count = ::read(fd, text.data() + size, text.size() - size);
            if (count > 0) size += static_cast<std::size_t>(count);
        }
        text.resize(size);
    }
    close(fd);
    return text.size() > largestFile ? KeyFile() : parse(text);
}

KeyFile KeyFile::parse(std::string_view text) {
    KeyFile file;
    auto* group = static_cast<decltype(file.values_)::mapped_type*>(nullptr);
    while (!text.empty()) {
        auto line = trimmed(popUpTo('\n', text));
        if (line.starts_with('#')) continue;
        if (line.starts_with('[') && line.ends_with(']')) {
            group = &file.values_[std::string(line.substr(1, line.size() - 2))];
            continue;
        }
        if (!group || line.find('=') == std::string_view::npos) continue;
        const auto key = trimmed(popUpTo('=', line));
        group->try_emplace(std::string(key), trimmed(line));
    }
    return file;
}

std::optional<std::string> KeyFile::value(std::string_view group, std::string_view key) const {
    const auto found = values_.find(group);
    if (found == values_.end()) return std::nullopt;
    const auto entry = found->second.find(key);
    if (entry == found->second.end()) return std::nullopt;
    return entry->second;
}

std::vector<std::string> KeyFile::list(std::string_view group, std::string_view key) const {
    std::vector<std::string> parts;
    const auto text = value(group, key).value_or("");
    for (std::string_view rest = text; !rest.empty();) {
        const auto part = trimmed(popUpTo(',', rest));
        if (!part.empty()) parts.emplace_back(part);
    }
    return parts;
}

std::optional<int> KeyFile::positive(std::string_view group, std::string_view key) const {
    const auto text = value(group, key).value_or("");
    int number = 0;
    const auto* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || number < 1 || number > 65'535) {
        return std::nullopt;
    }
    return number;
}

void KeyFile::addMissing(const KeyFile& other) {
    for (const auto& [group, entries] : other.values_)
        values_[group].insert(entries.begin(), entries.end());
}

}  // namespace platform

#include "platform/files/FileAttributes.h"

#include <sys/stat.h>

#include <algorithm>

namespace platform {

ObjectKind FileAttributes::kind() const {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return ObjectKind::RegularFile;
        case S_IFDIR:
            return ObjectKind::Directory;
        case S_IFLNK:
            return ObjectKind::SymbolicLink;
        default:
            return ObjectKind::Other;
    }
}

std::uint64_t stampOf(const FileAttributes& object) {
    std::uint64_t stamp = object.mode;
    const auto mix = [&stamp](std::uint64_t value) {
        stamp = (stamp ^ value) * 0x9E3779B97F4A7C15;
        stamp ^= stamp >> 29;
    };
    for (const auto& time :
         {object.change, object.modification, object.creation.value_or(QSDate{})}) {
        mix(static_cast<std::uint64_t>(time.seconds) * 1'000'000'000 + time.nanoseconds);
    }
    mix(object.size);
    mix(object.identity.inode);
    return std::max<std::uint64_t>(stamp, 1);
}

bool FileAttributes::hasAttribute(std::string_view storedName) const {
    const std::string_view names = attributeNames;
    for (std::size_t begin = 0; begin < names.size();) {
        const auto end = std::min(names.find('\0', begin), names.size());
        if (names.substr(begin, end - begin) == storedName) return true;
        begin = end + 1;
    }
    return false;
}

}  // namespace platform

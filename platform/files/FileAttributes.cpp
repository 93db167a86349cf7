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

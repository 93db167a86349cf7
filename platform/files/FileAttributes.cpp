#include "platform/files/FileAttributes.h"

#include <sys/stat.h>

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

}  // namespace platform

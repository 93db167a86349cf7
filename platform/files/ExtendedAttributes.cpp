#include "platform/files/ExtendedAttributes.h"

#include <sys/statvfs.h>
#include <sys/xattr.h>

#include <cerrno>

#include "platform/files/AttributeReader.h"
#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

bool hasFullDisk(int descriptor) {
    struct statvfs status {};
    return fstatvfs(descriptor, &status) == 0 && status.f_bavail == 0;
}

}  // namespace

int setExtendedAttribute(int descriptor, std::string_view name, QSDataView value) {
    const auto result = setxattr(descriptorPath(descriptor, "").c_str(),
                                 storedAttributeName(name).c_str(), value.data(), value.size(), 0);
    if (result == 0 || (errno != ENOSPC && errno != ERANGE)) return result;
    // Most file systems say ENOSPC of a value too large for the object, too.
    errno = errno == ENOSPC && hasFullDisk(descriptor) ? ENOSPC : E2BIG;
    return result;
}

int removeExtendedAttribute(int descriptor, std::string_view name) {
    return removexattr(descriptorPath(descriptor, "").c_str(), storedAttributeName(name).c_str());
}

}  // namespace platform

#include "platform/files/ExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>

#include "platform/files/AttributeReader.h"

namespace platform {

int setExtendedAttribute(int descriptor, std::string_view name, QSDataView value) {
    const auto result =
        fsetxattr(descriptor, storedAttributeName(name).c_str(), value.data(), value.size(), 0);
    if (result != 0 && (errno == ENOSPC || errno == ERANGE)) errno = E2BIG;
    return result;
}

int removeExtendedAttribute(int descriptor, std::string_view name) {
    return fremovexattr(descriptor, storedAttributeName(name).c_str());
}

}  // namespace platform

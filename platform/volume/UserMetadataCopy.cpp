#include "platform/volume/UserMetadataCopy.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/ExtendedAttributes.h"
#include "platform/files/Folder.h"

namespace platform {

namespace {

/// The URL with its attributes kept, if the object is the one that is meant.
Result<QSURL> verified(const FileSystem& files, const QSURL& url, const ObjectIdentity& object) {
    const auto fresh = QSURL::fileURLWithPath(url.path());
    const auto attributes = files.attributes(fresh);
    if (!attributes) return std::unexpected(attributes.error());
    if ((*attributes)->identity != object) {
        return std::unexpected(errorFromErrno(ESTALE, files.nativePath(url)));
    }
    return fresh;
}

}  // namespace

Result<std::string> readMetadata(const FileSystem& files, const QSURL& url,
                                 const ObjectIdentity& object,
                                 const std::vector<std::string>& names) {
    const auto kept = verified(files, url, object);
    if (!kept) return std::unexpected(kept.error());
    std::string packed;
    for (const auto& name : names) {
        const auto value = files.extendedAttribute(*kept, name);
        if (!value) return std::unexpected(value.error());
        if (!*value) continue;
        packed += name;
        packed += '\0';
        for (int shift = 0; shift < 32; shift += 8) {
            packed += static_cast<char>((*value)->size() >> shift);
        }
        packed.append((*value)->begin(), (*value)->end());
    }
    return packed;
}

Result<void> applyMetadata(const FileSystem& files, const QSURL& url, const ObjectIdentity& object,
                           const std::string& packed, const std::vector<std::string>& names) {
    // Open before its identity is compared, so that no other object can get its inode number.
    const auto file = files.openObject(url, O_RDONLY);
    if (!file) return std::unexpected(file.error());
    const auto own = readMetadata(files, url, object, names);
    if (!own) return std::unexpected(own.error());
    if (!own->empty()) return {};
    struct stat status {};
    if (fstat(file->get(), &status) != 0 || status.st_ino != object.inode) {
        return std::unexpected(errorFromErrno(ESTALE, files.nativePath(url)));
    }
    std::string_view rest = packed;
    while (!rest.empty()) {
        const auto end = rest.find('\0');
        if (end == std::string_view::npos || rest.size() < end + 5) break;
        std::size_t size = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            size |= static_cast<std::size_t>(static_cast<unsigned char>(rest[end + 1 + i]))
                    << (8 * i);
        }
        const auto value = rest.substr(end + 5, size);
        const QSData bytes(value.begin(), value.end());
        if (setExtendedAttribute(file->get(), rest.substr(0, end), bytes) != 0) {
            return std::unexpected(errorFromErrno(errno, files.nativePath(url)));
        }
        rest.remove_prefix(end + 5 + value.size());
    }
    return {};
}

}  // namespace platform

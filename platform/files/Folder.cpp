#include "platform/files/Folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

constexpr std::size_t readSize = 32 * 1024;  // what the C library reads at a time

ObjectKind kindOfEntry(unsigned char type) {
    switch (type) {
        case DT_REG:
            return ObjectKind::RegularFile;
        case DT_DIR:
            return ObjectKind::Directory;
        case DT_LNK:
            return ObjectKind::SymbolicLink;
        default:
            return ObjectKind::Other;
    }
}

bool isDots(std::string_view name) {
    return name == "." || name == "..";
}

}  // namespace

Folder::Folder(const FileSystem& files, QSURL url, FileDescriptor fd, FolderFacts facts)
    : files_(files), url_(std::move(url)), fd_(std::move(fd)), facts_(facts) {}

Result<std::shared_ptr<Folder>> Folder::make(const FileSystem& files, QSURL url,
                                             FileDescriptor fd) {
    auto facts = readFolderFacts(fd.get(), files.passedOver());
    if (!facts) return std::unexpected(facts.error());
    if (std::ranges::find(facts->passedOver, facts->identity) != facts->passedOver.end()) {
        return std::unexpected(errorFromErrno(EXDEV, url.path()));
    }
    return std::shared_ptr<Folder>(new Folder(files, std::move(url), std::move(fd), *facts));
}

Result<std::shared_ptr<FileAttributes>> Folder::ownAttributes() const {
    return readAttributes(fd_.get(), "", nullptr, files_.credentials());
}

Result<std::optional<DirectoryEntry>> Folder::next() {
    for (;;) {
        if (position_ >= filled_) {
            buffer_.resize(readSize);
            const auto size = syscall(SYS_getdents64, fd_.get(), buffer_.data(), buffer_.size());
            if (size < 0) return std::unexpected(errorFromErrno(errno, url_.path()));
            if (size == 0) return std::nullopt;
            position_ = 0;
            filled_ = static_cast<std::size_t>(size);
        }
        const auto* raw = reinterpret_cast<const dirent64*>(buffer_.data() + position_);
        last_ = position_;
        position_ += raw->d_reclen;
        const std::string_view name = raw->d_name;
        if (isDots(name)) continue;
        auto kind = kindOfEntry(raw->d_type);
        if (raw->d_type == DT_UNKNOWN) {
            struct stat status {};
            if (fstatat(fd_.get(), raw->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
                kind = kindOfEntry(static_cast<unsigned char>(IFTODT(status.st_mode)));
            }
        }
        return DirectoryEntry{name, raw->d_ino, kind};
    }
}

Result<void> Folder::close() {
    if (fd_.close() != 0) return std::unexpected(errorFromErrno(errno, url_.path()));
    return {};
}

Result<std::shared_ptr<Folder>> Folder::openChild(std::string_view name) const {
    const std::string text(name);
    FileDescriptor fd(openBeneath(fd_.get(), text.c_str(), O_RDONLY | O_DIRECTORY,
                                  RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV));
    auto url = url_.URLByAppendingPathComponent(name);
    if (!fd) return std::unexpected(errorFromErrno(errno, url.path()));
    return make(files_, std::move(url), std::move(fd));
}

Result<std::shared_ptr<FileAttributes>> Folder::childAttributes(std::string_view name) const {
    const std::string text(name);
    return readAttributes(fd_.get(), text.c_str(), &facts_, files_.credentials());
}

Result<ObjectIdentity> Folder::childIdentity(std::string_view name) const {
    return readIdentity(fd_.get(), std::string(name).c_str(), &facts_, files_.credentials());
}

Result<ObjectIdentity> Folder::ownIdentity() const {
    return readIdentity(fd_.get(), "", nullptr, files_.credentials());
}

Result<ObjectState> Folder::childState(std::string_view name) const {
    return readState(fd_.get(), std::string(name).c_str(), &facts_);
}

Result<ObjectState> Folder::ownState() const {
    return readState(fd_.get(), "", nullptr);
}

}  // namespace platform

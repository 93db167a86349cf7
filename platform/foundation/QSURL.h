#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/QSResourceValue.h"

namespace platform {

/// What another layer keeps beside a URL's resource values, for instance the result of one `statx`.
/// Immutable once attached.
class QSURLAttachment {
  public:
    virtual ~QSURLAttachment() = default;
};

/// An absolute file URL: a path of bytes (names on disk need not be UTF-8), without "." and
/// without a trailing "/". A small value; copies share one resource cache, which any thread may
/// use. A null URL does not exist: absence is std::optional<QSURL>.
class QSURL {
  public:
    /// A file URL. Doubled and trailing slashes and "." components go; ".." stays, for the resolver
    /// to refuse. A relative path is taken from "/".
    [[nodiscard]] static QSURL fileURLWithPath(std::string_view path);

    /// The file URL of "/" and the components below it; none if one of them cannot be part of a
    /// path: it is empty or holds "/" or NUL.
    [[nodiscard]] static std::optional<QSURL> fileURLWithPathComponents(
        std::span<const std::string_view> components);

    /// Any URL text that is not a file URL. Such a URL has an empty path and no resource values,
    /// and is its own parent and child.
    [[nodiscard]] static QSURL URLWithString(std::string_view text);

    [[nodiscard]] bool isFileURL() const { return rep_->isFile; }
    [[nodiscard]] const std::string& path() const { return rep_->path; }
    [[nodiscard]] std::string_view lastPathComponent() const;
    [[nodiscard]] std::vector<std::string_view> pathComponents() const;  ///< "/" is not one
    [[nodiscard]] QSURL URLByDeletingLastPathComponent() const;

    /// REQUIRES: `name` is one component: not empty, no "/".
    [[nodiscard]] QSURL URLByAppendingPathComponent(std::string_view name) const;

    /// For people and logs: "file://" and the path, bytes that are not printable escaped.
    [[nodiscard]] std::string description() const;

    /// The cached value; monostate where none is cached. Never touches the disk.
    [[nodiscard]] QSResourceValue cachedResourceValue(QSResourceKey key) const;
    void setCachedResourceValue(QSResourceKey key, QSResourceValue value) const;
    void removeAllCachedResourceValues() const;

    [[nodiscard]] std::shared_ptr<const QSURLAttachment> attachment() const;
    void setAttachment(std::shared_ptr<const QSURLAttachment> attachment) const;

    /// Equal paths; the caches do not count.
    friend bool operator==(const QSURL& a, const QSURL& b) {
        return a.rep_ == b.rep_ || (a.isFileURL() == b.isFileURL() && a.path() == b.path());
    }
    friend bool operator<(const QSURL& a, const QSURL& b) { return a.path() < b.path(); }

  private:
    struct Rep {
        // Constant after construction.
        std::string path;
        bool isFile = true;

        // Guarded by mutex.
        std::mutex mutex;
        std::vector<std::pair<QSResourceKey, QSResourceValue>> values;
        std::shared_ptr<const QSURLAttachment> attachment;
    };

    explicit QSURL(std::shared_ptr<Rep> rep) : rep_(std::move(rep)) {}
    static QSURL make(std::string path, bool isFile);

    std::shared_ptr<Rep> rep_;
};

}  // namespace platform

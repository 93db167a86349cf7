#include "platform/foundation/QSURL.h"

#include <algorithm>

#include "platform/foundation/fatalError.h"

namespace platform {

namespace {

/// Collapses slashes and drops "." components; the result begins with "/".
std::string normalisedPath(std::string_view path) {
    std::string result;
    result.reserve(path.size() + 1);
    for (std::size_t begin = 0; begin <= path.size();) {
        const auto end = std::min(path.find('/', begin), path.size());
        const auto component = path.substr(begin, end - begin);
        if (!component.empty() && component != ".") {
            result += '/';
            result += component;
        }
        begin = end + 1;
    }
    if (result.empty()) result = "/";
    return result;
}

}  // namespace

QSURL QSURL::make(std::string path, bool isFile) {
    auto rep = std::make_shared<Rep>();
    rep->path = std::move(path);
    rep->isFile = isFile;
    return QSURL(std::move(rep));
}

QSURL QSURL::fileURLWithPath(std::string_view path) {
    return make(normalisedPath(path), true);
}

std::optional<QSURL> QSURL::fileURLWithPathComponents(
    std::span<const std::string_view> components) {
    constexpr std::string_view separators("/\0", 2);
    std::string path;
    for (const auto component : components) {
        if (component.empty() || component.find_first_of(separators) != std::string_view::npos) {
            return std::nullopt;
        }
        path += '/';
        path += component;
    }
    return fileURLWithPath(path);
}

QSURL QSURL::URLWithString(std::string_view text) {
    constexpr std::string_view scheme = "file://";
    if (text.starts_with(scheme)) return fileURLWithPath(text.substr(scheme.size()));
    return make({}, false);
}

std::string_view QSURL::lastPathComponent() const {
    const std::string_view text = path();
    const auto slash = text.rfind('/');
    return slash == std::string_view::npos ? text : text.substr(slash + 1);
}

std::vector<std::string_view> QSURL::pathComponents() const {
    std::vector<std::string_view> components;
    const std::string_view text = path();
    for (std::size_t begin = 1; begin < text.size();) {
        const auto end = std::min(text.find('/', begin), text.size());
        components.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return components;
}

QSURL QSURL::URLByDeletingLastPathComponent() const {
    if (!isFileURL()) return *this;
    const auto slash = path().rfind('/');
    return make(slash == 0 ? "/" : path().substr(0, slash), true);
}

QSURL QSURL::URLByAppendingPathComponent(std::string_view name) const {
    if (name.empty() || name.find('/') != std::string_view::npos) {
        fatalError("a path component must not be empty or hold a slash");
    }
    if (!isFileURL()) return *this;
    std::string child;
    child.reserve(path().size() + 1 + name.size());
    child = path();
    if (child.back() != '/') child += '/';
    child += name;
    return make(std::move(child), true);
}

std::string QSURL::description() const {
    constexpr std::string_view hex = "0123456789ABCDEF";
    std::string text = isFileURL() ? "file://" : "";
    for (const char c : path()) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= ' ' || byte == '%' || byte >= 0x7F) {
            text += '%';
            text += hex[byte >> 4];
            text += hex[byte & 0x0F];
        } else {
            text += c;
        }
    }
    return text;
}

QSResourceValue QSURL::cachedResourceValue(QSResourceKey key) const {
    const std::scoped_lock lock(rep_->mutex);
    for (const auto& [cachedKey, value] : rep_->values) {
        if (cachedKey == key) return value;
    }
    return {};
}

void QSURL::setCachedResourceValue(QSResourceKey key, QSResourceValue value) const {
    const std::scoped_lock lock(rep_->mutex);
    for (auto& [cachedKey, cached] : rep_->values) {
        if (cachedKey == key) {
            cached = std::move(value);
            return;
        }
    }
    rep_->values.emplace_back(key, std::move(value));
}

void QSURL::removeAllCachedResourceValues() const {
    const std::scoped_lock lock(rep_->mutex);
    rep_->values.clear();
    rep_->attachment.reset();
}

std::shared_ptr<const QSURLAttachment> QSURL::attachment() const {
    const std::scoped_lock lock(rep_->mutex);
    return rep_->attachment;
}

void QSURL::setAttachment(std::shared_ptr<const QSURLAttachment> attachment) const {
    const std::scoped_lock lock(rep_->mutex);
    rep_->attachment = std::move(attachment);
}

}  // namespace platform

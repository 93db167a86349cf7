#include "platform/types/MimeNames.h"

#include <gio/gio.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <mutex>

#include "platform/types/asciiCase.h"

namespace platform {

namespace {

/// A cache that is full begins anew.
constexpr std::size_t mostRemembered = 4096;

constexpr std::string_view wildcards = "*?[\\";

std::string askDatabase(std::string_view name) {
    const std::unique_ptr<char, void (*)(void*)> type(
        g_content_type_guess(std::string(name).c_str(), nullptr, 0, nullptr), g_free);
    return type && *type ? type.get() : "application/octet-stream";
}

bool hasLowerPrefix(std::string_view name, std::string_view prefix) {
    return name.size() >= prefix.size() &&
           std::ranges::equal(name.substr(0, prefix.size()), prefix, {},
                              [](char c) { return asciiLower(c); });
}

}  // namespace

MimeNames::MimeNames() {
    readPatterns(g_get_user_data_dir());
    for (const char* const* folder = g_get_system_data_dirs(); *folder; ++folder) {
        readPatterns(*folder);
    }
}

/// Lines are "weight:type:pattern" and perhaps more, led by comments.
void MimeNames::readPatterns(const std::string& dataFolder) {
    std::ifstream file(dataFolder + "/mime/globs2");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) continue;
        const std::size_t type = line.find(':');
        const std::size_t pattern = line.find(':', type + 1);
        if (type == std::string::npos || pattern == std::string::npos) continue;
        const std::size_t end = line.find(':', pattern + 1);
        addPattern(asciiLower(line.substr(pattern + 1, end - pattern - 1)));
    }
}

void MimeNames::addPattern(std::string_view pattern) {
    if (pattern.starts_with('*')) return addEndPattern(pattern);
    const std::size_t end = pattern.find_first_of("*?[\\.");
    if (end == 0) {
        // Names with a leading dot are always taken whole.
        if (!pattern.starts_with('.')) needWholeNames(pattern);
        return;
    }
    const bool isWholePiece = end == std::string_view::npos || pattern[end] == '.';
    (isWholePiece ? stems_ : beginnings_).emplace_back(pattern.substr(0, end));
    for (int initial = 0; initial < 256; ++initial) {
        if (asciiLower(static_cast<char>(initial)) == pattern.front()) {
            isSpecialInitial_[static_cast<std::size_t>(initial)] = true;
        }
    }
}

/// "*" and what a name must end in.
void MimeNames::addEndPattern(std::string_view pattern) {
    std::string_view rest = pattern.substr(1);
    if (!rest.starts_with('.')) {
        // Without a dot ("*~") it lies within the last piece, unless a wildcard stretches it.
        if (rest.find('.') != rest.npos || rest.find_first_of(wildcards) != rest.npos) {
            needWholeNames(pattern);
        }
        return;
    }
    rest.remove_prefix(1);
    bool hasInnerPiece = false;
    for (std::size_t dot; (dot = rest.find('.')) != rest.npos; rest.remove_prefix(dot + 1)) {
        const std::string_view piece = rest.substr(0, dot);
        if (piece.find_first_of(wildcards) != piece.npos) return needWholeNames(pattern);
        innerPieces_.emplace(piece);
        hasInnerPiece = true;
    }
    // A last piece such as "[0-9]*" may match dots; then an inner piece must show where it begins.
    const bool mayMatchDot = rest.find_first_of("*?\\!^") != rest.npos;
    if (mayMatchDot && !hasInnerPiece) needWholeNames(pattern);
}

void MimeNames::needWholeNames(std::string_view pattern) {
    const std::size_t dot = pattern.rfind('.');
    const bool hasPlainEnd =
        dot != pattern.npos && pattern.find_first_of("*?[]\\", dot) == pattern.npos;
    if (hasPlainEnd) {
        unsureEnds_.emplace(pattern.substr(dot + 1));
    } else {
        isAnyEndUnsure_ = true;
    }
}

/// Whether the beginning of `name`, whose first dot is at `dot`, may decide.
bool MimeNames::namesWholeFile(std::string_view name, std::size_t dot) const {
    if (!isSpecialInitial_[static_cast<unsigned char>(name.front())]) return false;
    const auto isStem = [&](const std::string& stem) {
        return stem.size() == dot && hasLowerPrefix(name, stem);
    };
    const auto isBeginning = [&](const std::string& text) { return hasLowerPrefix(name, text); };
    return std::ranges::any_of(stems_, isStem) || std::ranges::any_of(beginnings_, isBeginning);
}

/// The part of a name that decides which patterns match, but for unsure ends: all of it, or an end
/// from some dot on.
std::string_view MimeNames::decidingPart(std::string_view name) const {
    const std::size_t first = name.find('.');
    if (first == 0 || first == name.npos || isAnyEndUnsure_) return name;
    if (namesWholeFile(name, first)) return name;
    const std::size_t last = name.rfind('.');
    for (std::size_t dot = first; dot < last;) {
        const std::size_t next = name.find('.', dot + 1);
        if (innerPieces_.contains(asciiLower(name.substr(dot + 1, next - dot - 1)))) {
            return name.substr(first);
        }
        dot = next;
    }
    return name.substr(last);
}

const std::string& MimeNames::typeOfName(std::string_view name) const {
    const std::string_view part = decidingPart(name);
    Cache& cache = part.size() == name.size() ? byName_ : byEnd_;
    {
        const std::shared_lock lock(mutex_);
        if (const auto found = cache.find(part); found != cache.end()) return *found->second;
    }
    std::string type = askDatabase(name);
    const std::unique_lock lock(mutex_);
    const std::string& kept = *types_.insert(std::move(type)).first;
    if (unsureEnds_.contains(asciiLower(name.substr(name.rfind('.') + 1)))) return kept;
    if (cache.size() >= mostRemembered) cache.clear();
    cache.emplace(part, &kept);
    return kept;
}

}  // namespace platform

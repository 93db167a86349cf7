#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::string_view QSPOSIXErrorDomain = "QSPOSIXErrorDomain";
inline constexpr std::string_view QSMochaErrorDomain = "QSMochaErrorDomain";

/// Codes of QSMochaErrorDomain.
inline constexpr std::int64_t QSFileNoSuchFileError = 260;
inline constexpr std::int64_t QSFileReadCorruptFileError = 259;
inline constexpr std::int64_t QSFileWriteNoPermissionError = 513;
inline constexpr std::int64_t QSFileWriteFileExistsError = 516;
inline constexpr std::int64_t QSCoderReadCorruptError = 4864;
inline constexpr std::int64_t QSCoderInvalidValueError = 4866;

/// Keys of `userInfo`.
inline constexpr std::string_view QSFilePathErrorKey = "QSFilePath";
inline constexpr std::string_view QSDescriptionErrorKey = "QSDescription";

/// The one error type. A caller acts on `domain` and `code`; `userInfo` is for people.
/// A value; safe to copy between threads.
struct QSError {
    std::string domain;
    std::int64_t code = 0;
    std::map<std::string, std::string, std::less<>> userInfo = {};

    /// One line without a trailing full stop; never empty.
    [[nodiscard]] std::string description() const;

    friend bool operator==(const QSError&, const QSError&) = default;
};

template <typename T>
using Result = std::expected<T, QSError>;

/// The one place where an errno value becomes an error. `path`, where not empty, is kept under
/// QSFilePathErrorKey. Does not read or change errno itself.
[[nodiscard]] QSError errorFromErrno(int errnoValue, std::string_view path = {});

/// An error of QSMochaErrorDomain with `description` for people.
[[nodiscard]] QSError mochaError(std::int64_t code, std::string_view description);

}  // namespace platform

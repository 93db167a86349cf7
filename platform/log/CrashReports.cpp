#include "platform/log/CrashReports.h"

#include <execinfo.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

namespace platform {

namespace {

constexpr std::size_t mostReports = 20;
constexpr std::int64_t quietSeconds = 3600;
constexpr std::string_view prefix = "crash-";
constexpr std::size_t nameSize =
    std::string_view("crash-2026-01-31T09:15:00Z-0123456789abcdef.txt").size();
constexpr const char* unfinishedName = ".crash-unfinished";

class Descriptor {
  public:
    explicit Descriptor(int value) : value_(value) {}
    ~Descriptor() {
        if (value_ >= 0) ::close(value_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    [[nodiscard]] int get() const { return value_; }
    [[nodiscard]] bool isOpen() const { return value_ >= 0; }

  private:
    int value_;
};

/// Of fixed width, so that names sort by time.
std::string timeText(const QSDate& date) {
    return date.rfc3339().substr(0, 19) + "Z";
}

/// The end of the report's name: a hash (FNV-1a) of the text without its digits.
std::string nameSuffix(std::string_view message) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : message) {
        if (c >= '0' && c <= '9') continue;
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
    return fmt::format("-{:016x}.txt", hash);
}

std::string stackTrace() {
    std::array<void*, 128> addresses;
    const int count = ::backtrace(addresses.data(), static_cast<int>(addresses.size()));
    const std::unique_ptr<char*, void (*)(void*)> names(
        ::backtrace_symbols(addresses.data(), count), std::free);
    std::string text;
    for (int i = 0; names && i < count; ++i) text += fmt::format("  {}\n", names.get()[i]);
    return text;
}

/// Makes what is missing of it. An invalid descriptor and errno where it cannot be had.
int openFolder(const std::string& folder) {
    std::size_t end = 0;
    while (end != std::string::npos) {
        end = folder.find('/', end + 1);
        ::mkdir(folder.substr(0, end).c_str(), 0700);
    }
    return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// Waits until no other reporter holds the folder; the lock ends with the descriptor.
bool lockFolder(int folder) {
    int result = 0;
    do {
        result = ::flock(folder, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Names of the reports there, oldest first.
Result<std::vector<std::string>> reportNames(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        std::string name = it->path().filename();
        if (name.size() == nameSize && name.starts_with(prefix)) names.push_back(std::move(name));
    }
    if (error) return std::unexpected(errorFromErrno(error.value(), folder));
    std::ranges::sort(names);
    return names;
}

/// Whether one of them ends in `suffix` and is of the hour before `now`.
bool hasRecent(const std::vector<std::string>& names, std::string_view suffix, const QSDate& now) {
    const std::string last = timeText(now);
    const std::string first = timeText({now.seconds - quietSeconds, 0});
    return std::ranges::any_of(names, [&](const std::string& name) {
        const std::string_view time = std::string_view(name).substr(prefix.size(), last.size());
        return name.ends_with(suffix) && first < time && time <= last;
    });
}

bool writeAll(int descriptor, std::string_view rest) {
    while (!rest.empty()) {
        const ssize_t written = ::write(descriptor, rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

/// False and errno where it failed; then no report of that name is there. What a killed process
/// left of its own attempt is overwritten. REQUIRES: the folder is locked.
bool writeReport(int folder, const std::string& name, std::string_view text) {
    const Descriptor file(::openat(folder, unfinishedName,
                                   O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.isOpen() && writeAll(file.get(), text) && ::fsync(file.get()) == 0 &&
           ::renameat(folder, unfinishedName, folder, name.c_str()) == 0 && ::fsync(folder) == 0;
}

}  // namespace

Result<void> CrashReports::simulateCrash(std::uint32_t exceptionCode,
                                         std::string_view message) const {
    const Descriptor folder(openFolder(folder_));
    if (!folder.isOpen() || !lockFolder(folder.get())) {
        return std::unexpected(errorFromErrno(errno, folder_));
    }
    const auto names = reportNames(folder_);
    if (!names) return std::unexpected(names.error());
    const QSDate now = clock_();
    const std::string suffix = nameSuffix(message);
    if (hasRecent(*names, suffix, now)) return {};

    const std::string text = fmt::format(
        "Message: {}\nException code: {}\nTime: {}\nProcess: {} [{}], thread {}\n\nStack:\n{}",
        message, exceptionCode, now.rfc3339(), program_invocation_short_name, ::getpid(),
        ::gettid(), stackTrace());
    if (!writeReport(folder.get(), fmt::format("{}{}{}", prefix, timeText(now), suffix), text)) {
        return std::unexpected(errorFromErrno(errno, folder_));
    }
    for (std::size_t i = 0; i + mostReports < names->size() + 1; ++i) {
        ::unlinkat(folder.get(), (*names)[i].c_str(), 0);
    }
    return {};
}

}  // namespace platform

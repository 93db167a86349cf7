#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

/// Owns one descriptor; -1 is none. Closing keeps errno.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1);
    /// Closes now; 0, or -1 with errno as close() gives it. Either way it owns nothing afterwards.
    int close();

  private:
    int fd_ = -1;
};

}  // namespace platform

#include "platform/volume/KernelEvents.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>

#include "platform/files/FileDescriptor.h"
#include "platform/files/SystemCalls.h"

namespace platform {

namespace {

constexpr std::uint32_t watched = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB |
                                  IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF |
                                  IN_ONLYDIR | IN_EXCL_UNLINK;

class InotifySource final : public KernelEventSource {
  public:
    explicit InotifySource(FileDescriptor fd) : fd_(std::move(fd)) {}

    Result<int> addWatch(int folder) override {
        const auto path = descriptorPath(folder, "");
        const int watch = inotify_add_watch(fd_.get(), path.c_str(), watched);
        if (watch < 0) return std::unexpected(errorFromErrno(errno));
        return watch;
    }

    void removeWatch(int watch) override { (void)inotify_rm_watch(fd_.get(), watch); }

    std::vector<KernelEvent> read() override {
        std::vector<KernelEvent> events;
        for (;;) {
            const auto size = ::read(fd_.get(), buffer_.data(), buffer_.size());
            if (size <= 0) return events;
            for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
                const auto* raw = reinterpret_cast<const inotify_event*>(buffer_.data() + at);
                events.push_back({raw->wd, raw->mask, raw->len == 0 ? "" : raw->name});
                at += sizeof(inotify_event) + raw->len;
            }
            // One after another until nothing is left would never end in a storm.
            if (events.size() >= mostAtOnce) return events;
        }
    }

    int descriptor() const override { return fd_.get(); }

  private:
    static constexpr std::size_t mostAtOnce = 65'536;  // more than the kernel's queue holds

    FileDescriptor fd_;
    alignas(inotify_event) std::array<char, 256 * 1024> buffer_;
};

}  // namespace

Result<std::unique_ptr<KernelEventSource>> makeInotifySource() {
    FileDescriptor fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd) return std::unexpected(errorFromErrno(errno));
    return std::make_unique<InotifySource>(std::move(fd));
}

std::uint64_t inotifyWatchLimit() {
    std::uint64_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_user_watches") >> limit;
    return limit;
}

}  // namespace platform

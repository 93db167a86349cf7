// What the kernel alone costs for the facts that a listing or a crawl needs: the calls with nothing
// around them. Every product figure is compared with these.
//
//   tidewell-bench-floor list FOLDER ROUNDS    statx, three attributes and an access check an entry
//   tidewell-bench-floor crawl FOLDER ROUNDS   statx an entry and one watch a folder
//
// Both go down into sub-folders. Prints the median of the rounds in microseconds an entry.

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace {

constexpr std::array attributeNames = {"user.com.quenby.lastuseddate#PS",
                                       "user.com.quenby.metadata:_kMDItemUserTags",
                                       "user.com.quenby.favorite-rank.number#PS"};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// Calls `visit` for every entry name of the open directory but "." and "..", with the type that
/// the directory itself has.
void forEachEntry(int folder, const std::function<void(const char*, unsigned char)>& visit) {
    alignas(dirent64) std::array<char, 32768> buffer;
    for (;;) {
        const long filled = syscall(SYS_getdents64, folder, buffer.data(), buffer.size());
        if (filled < 0) fail("getdents64");
        if (filled == 0) return;
        for (long at = 0; at < filled;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
                visit(name, entry->d_type);
            }
            at += entry->d_reclen;
        }
    }
}

/// One pass over a tree, folder by folder. Attributes have no call relative to a descriptor before
/// Linux 6.13, so a listing makes each folder its working directory.
class Pass {
  public:
    explicit Pass(bool crawls) : crawls_(crawls) {
        if (crawls_ && (watches_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) < 0) {
            fail("inotify_init1");
        }
    }
    ~Pass() {
        if (watches_ >= 0) close(watches_);
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    void visit(const std::string& path) {
        const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (folder < 0) fail(path.c_str());
        if (crawls_) {
            constexpr std::uint32_t events = IN_CREATE | IN_DELETE | IN_MOVE | IN_ATTRIB |
                                             IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE_SELF |
                                             IN_MOVE_SELF | IN_ONLYDIR;
            if (inotify_add_watch(watches_, path.c_str(), events) < 0) fail("inotify_add_watch");
        } else if (fchdir(folder) != 0) {
            fail("fchdir");
        }
        std::vector<std::string> children;
        forEachEntry(folder, [&](const char* name, unsigned char type) {
            ++entries_;
            if (type == DT_DIR) children.push_back(path + "/" + name);
            fetch(folder, name);
        });
        close(folder);
        for (const std::string& child : children) visit(child);
    }

    [[nodiscard]] std::uint64_t entries() const { return entries_; }

  private:
    void fetch(int folder, const char* name) const {
        struct statx facts;
        if (statx(folder, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &facts) != 0)
            fail(name);
        if (crawls_) return;
        std::array<char, 256> value;
        for (const char* attribute : attributeNames) {
            static_cast<void>(lgetxattr(name, attribute, value.data(), value.size()));
        }
        static_cast<void>(faccessat(folder, name, W_OK, AT_EACCESS));
    }

    bool crawls_;
    int watches_ = -1;
    std::uint64_t entries_ = 0;
};

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count == 4 ? arguments[1] : "";
    if (mode != "list" && mode != "crawl") {
        std::fputs("usage: tidewell-bench-floor list|crawl FOLDER ROUNDS\n", stderr);
        return 2;
    }
    const std::string folder = std::filesystem::absolute(arguments[2]);
    std::vector<double> times;
    for (int round = std::max(1, std::atoi(arguments[3])); round > 0; --round) {
        Pass pass(mode == "crawl");
        const double start = bench::now();
        pass.visit(folder);
        const double seconds = bench::now() - start;
        times.push_back(seconds * 1e6 / static_cast<double>(pass.entries()));
    }
    bench::report("floor." + mode, bench::median(times));
}

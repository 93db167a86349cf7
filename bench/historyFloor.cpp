// The least that it takes to follow what happens: a journal in SQLite, and the bare calls.
//
//   tidewell-bench-history-floor changes TREE SCRATCH         pages of a journal, and look-ups
//   tidewell-bench-history-floor storm FOLDER SCRATCH FILES   drains the kernel into a journal
//   tidewell-bench-history-floor signals FOLDER WRITES        from a write over a timer of 0.5 s
//
// TREE, FOLDER and FILES are as for tidewell-bench-history; SCRATCH is an empty folder. A page of
// changes is read by ID from a journal of a million events, the last of which are of the documents
// of TREE, and five calls are made for each row: statx, three attributes, an access check. Look-ups
// are a row by document ID, a file opened by its handle with its path and statx, and statx alone.

#include <fcntl.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/Measure.h"
#include "bench/Workload.h"

namespace {

constexpr int documents = 11'000;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// A database in one file, as the product's: write-ahead log, durable with each commit.
class Database {
  public:
    explicit Database(const std::string& path) {
        if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) fail(path.c_str());
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"
            "CREATE TABLE events (id INTEGER PRIMARY KEY, flags INTEGER, file_id INTEGER,"
            "document_id INTEGER, folder INTEGER, time INTEGER, path BLOB) STRICT;"
            "CREATE TABLE objects (document_id INTEGER PRIMARY KEY, file_id INTEGER,"
            "parent INTEGER, name BLOB) STRICT;");
    }
    ~Database() { sqlite3_close(database_); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void run(const char* sql) {
        if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(sql);
    }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr) != SQLITE_OK) fail(sql);
        return statement;
    }

  private:
    sqlite3* database_ = nullptr;
};

class Journal {
  public:
    explicit Journal(Database& database)
        : append_(database.prepare("INSERT INTO events VALUES (?, ?, ?, ?, ?, ?, ?)")),
          read_(database.prepare("SELECT * FROM events WHERE id > ? ORDER BY id LIMIT ?")) {}
    ~Journal() {
        sqlite3_finalize(append_);
        sqlite3_finalize(read_);
    }
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    void append(std::int64_t flags, std::int64_t folder, std::string_view path) {
        ++last;
        for (const int place : {1, 3, 4, 6}) sqlite3_bind_int64(append_, place, last);
        sqlite3_bind_int64(append_, 2, flags);
        sqlite3_bind_int64(append_, 5, folder);
        sqlite3_bind_blob(append_, 7, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
        if (sqlite3_step(append_) != SQLITE_DONE) fail("append");
        sqlite3_reset(append_);
    }
    /// Calls `visit` with the path of each.
    template <typename Visit>
    int read(std::int64_t after, int limit, Visit visit) {
        sqlite3_bind_int64(read_, 1, after);
        sqlite3_bind_int(read_, 2, limit);
        int rows = 0;
        for (; sqlite3_step(read_) == SQLITE_ROW; ++rows) {
            visit(std::string(static_cast<const char*>(sqlite3_column_blob(read_, 6)),
                              static_cast<std::size_t>(sqlite3_column_bytes(read_, 6))));
        }
        sqlite3_reset(read_);
        return rows;
    }

    std::int64_t last = 0;

  private:
    sqlite3_stmt* append_;
    sqlite3_stmt* read_;
};

/// The five calls of a listing for documents of a tree, one after another.
class Records {
  public:
    explicit Records(std::string tree) : tree_(std::move(tree)) {}

    void fetch(const std::string& path) {
        const auto slash = path.rfind('/');
        if (const auto folder = path.substr(0, slash); folder != folder_) {
            folder_ = folder;
            if (chdir((tree_ + "/" + folder).c_str()) != 0) fail(folder.c_str());
        }
        const char* name = path.c_str() + slash + 1;
        struct statx facts;
        if (statx(AT_FDCWD, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &facts) !=
            0) {
            fail(name);
        }
        std::array<char, 256> value;
        for (const char* attribute : {"user.a", "user.b", "user.c"}) {
            static_cast<void>(lgetxattr(name, attribute, value.data(), value.size()));
        }
        static_cast<void>(faccessat(AT_FDCWD, name, W_OK, AT_EACCESS));
    }

  private:
    const std::string tree_;
    std::string folder_;
};

template <typename Work>
double medianMicroseconds(int rounds, Work work) {
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        const double start = bench::now();
        work();
        times.push_back((bench::now() - start) * 1e6);
    }
    return bench::median(times);
}

void benchChanges(Database& database, const std::string& tree) {
    Records records(tree);
    Journal journal(database);
    database.run("BEGIN");
    for (int event = 0; event < 1'000'000; ++event) {
        journal.append(1, event % 5000, bench::documentPath(event % documents));
    }
    database.run("COMMIT");
    std::vector<std::string> paths;
    for (const int changed : {0, 100, 10'000}) {
        const auto since = journal.last - changed;
        const auto page = [&](int limit) {
            journal.read(since, limit, [&](const std::string& path) { records.fetch(path); });
        };
        const std::string name = std::to_string(changed);
        bench::report("first." + name, medianMicroseconds(50, [&] { page(100); }));
        bench::report("all." + name, medianMicroseconds(5, [&] { page(changed); }));
        bench::report("rows." + name, medianMicroseconds(50, [&] {
                          journal.read(since, 100,
                                       [&](std::string path) { paths.push_back(std::move(path)); });
                          paths.clear();
                      }));
    }
}

double rowByKey(Database& database, const std::vector<int>& order) {
    sqlite3_stmt* insert =
        database.prepare("INSERT INTO objects VALUES (?, ?, 1, x'446f63756d656e74')");
    database.run("BEGIN");
    for (int document = 0; document < documents; ++document) {
        sqlite3_bind_int(insert, 1, document);
        sqlite3_bind_int(insert, 2, document);
        if (sqlite3_step(insert) != SQLITE_DONE) fail("insert");
        sqlite3_reset(insert);
    }
    database.run("COMMIT");
    sqlite3_finalize(insert);
    sqlite3_stmt* find = database.prepare("SELECT * FROM objects WHERE document_id = ?");
    const double each = medianMicroseconds(3, [&] {
        for (const int document : order) {
            sqlite3_bind_int(find, 1, document);
            if (sqlite3_step(find) != SQLITE_ROW) fail("find");
            sqlite3_reset(find);
        }
    });
    sqlite3_finalize(find);
    return each / documents;
}

struct Handle {
    alignas(file_handle) std::array<unsigned char, sizeof(file_handle) + MAX_HANDLE_SZ> bytes{};
    file_handle* get() { return reinterpret_cast<file_handle*>(bytes.data()); }
};

void benchLookUps(Database& database) {
    std::vector<int> order(documents);
    for (int document = 0; document < documents; ++document) {
        order[static_cast<std::size_t>(document)] = document;
    }
    std::ranges::shuffle(order, std::mt19937(1));
    bench::report("rowByKey", rowByKey(database, order));

    std::vector<std::string> paths;
    std::vector<Handle> handles;
    for (const int document : order) {
        paths.push_back(bench::documentPath(document));
        Handle& handle = handles.emplace_back();
        handle.get()->handle_bytes = MAX_HANDLE_SZ;
        int mount = 0;
        if (name_to_handle_at(AT_FDCWD, paths.back().c_str(), handle.get(), &mount, 0) != 0) return;
    }
    const int mount = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct statx facts;
    std::array<char, 4096> path;
    bool isAllowed = true;
    const double byHandle = medianMicroseconds(3, [&] {
        for (Handle& handle : handles) {
            const int file = open_by_handle_at(mount, handle.get(), O_PATH | O_CLOEXEC);
            isAllowed = isAllowed && file >= 0;
            const std::string link = "/proc/self/fd/" + std::to_string(file);
            const auto length = readlink(link.c_str(), path.data(), path.size() - 1);
            path[static_cast<std::size_t>(std::max<ssize_t>(length, 0))] = 0;
            statx(AT_FDCWD, path.data(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS, &facts);
            close(file);
        }
    });
    if (isAllowed) bench::report("pathByHandle", byHandle / documents);
    bench::report("statx", medianMicroseconds(3, [&] {
                               for (const std::string& known : paths) {
                                   statx(AT_FDCWD, known.c_str(), AT_SYMLINK_NOFOLLOW,
                                         STATX_BASIC_STATS, &facts);
                               }
                           }) / documents);
    close(mount);
}

/// Reads events and appends them, nothing else, some hundred at a time; watches folders that come,
/// but does not look into them.
class Drain {
  public:
    Drain(Database& database, const std::string& top)
        : database_(database),
          journal_(database),
          kernel_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        if (kernel_ < 0) fail("inotify_init1");
        watch(top);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
            if (entry.is_directory()) watch(entry.path());
        }
    }
    ~Drain() { close(kernel_); }
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    /// One batch, committed; false where there was nothing.
    bool step() {
        pollfd fd{kernel_, POLLIN, 0};
        if (poll(&fd, 1, 0) <= 0) return false;
        database_.run("BEGIN");
        for (ssize_t size = 0; (size = read(kernel_, buffer_.data(), buffer_.size())) > 0;) {
            for (ssize_t at = 0; at < size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer_.data() + at);
                receive(*event);
                at += static_cast<ssize_t>(sizeof *event + event->len);
            }
        }
        database_.run("COMMIT");
        return true;
    }
    [[nodiscard]] double events() const { return static_cast<double>(journal_.last); }
    [[nodiscard]] double overflows() const { return overflows_; }

  private:
    void watch(const std::string& folder) {
        constexpr std::uint32_t mask = IN_CREATE | IN_DELETE | IN_MOVE | IN_ATTRIB | IN_MODIFY |
                                       IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
        const int number = inotify_add_watch(kernel_, folder.c_str(), mask);
        if (number >= 0) folders_[number] = folder;
    }
    void receive(const inotify_event& event) {
        if ((event.mask & IN_Q_OVERFLOW) != 0) ++overflows_;
        const char* name = event.len > 0 ? event.name : "";
        const std::string path = folders_[event.wd] + "/" + name;
        if ((event.mask & IN_CREATE) != 0 && (event.mask & IN_ISDIR) != 0) watch(path);
        journal_.append(event.mask, event.wd, path);
    }

    Database& database_;
    Journal journal_;
    int kernel_;
    std::map<int, std::string> folders_;
    double overflows_ = 0;
    alignas(inotify_event) std::array<char, 65536> buffer_{};
};

void benchStorm(Database& database, const std::string& folder, int files) {
    Drain drain(database, folder);
    std::atomic<bool> hasEnded = false;
    const double cpu = bench::cpuSeconds();
    double end = 0;
    bench::Storm storm;
    std::jthread storming([&] {
        storm = bench::runStorm(folder, files);
        end = bench::now();
        hasEnded = true;
    });
    while (!hasEnded) {
        drain.step();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    while (drain.step()) continue;
    storming.join();
    bench::report("seenSeconds", std::max(0.0, bench::now() - end));
    bench::report("stormSeconds", storm.seconds);
    bench::report("cpuAnEvent", (bench::cpuSeconds() - cpu) * 1e6 / drain.events());
    bench::report("missed", storm.events - drain.events());
    bench::report("overflows", drain.overflows());
    bench::report("residentMiB", bench::memory("VmHWM") / 1048576);
}

void benchSignals(const std::string& folder, int writes) {
    const std::string path = folder + "/Document.txt";
    bench::writeTo(path);
    const int kernel = inotify_init1(IN_CLOEXEC);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    if (kernel < 0 || timer < 0 ||
        inotify_add_watch(kernel, folder.c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0) {
        fail("inotify");
    }
    double heard = 0;
    std::binary_semaphore signalled{0};
    std::jthread follower([&] {
        alignas(inotify_event) std::array<char, 4096> buffer;
        for (int round = 0; round < writes; ++round) {
            if (read(kernel, buffer.data(), buffer.size()) < 0) fail("read");
            const itimerspec window{{}, {0, 500'000'000}};
            timerfd_settime(timer, 0, &window, nullptr);
            std::uint64_t times = 0;
            if (read(timer, &times, sizeof times) < 0) fail("read");
            pollfd fd{kernel, POLLIN, 0};
            while (poll(&fd, 1, 0) > 0 && read(kernel, buffer.data(), buffer.size()) > 0) continue;
            heard = bench::now();
            signalled.release();
        }
    });
    std::vector<double> delays;
    for (int round = 0; round < writes; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const double start = bench::now();
        bench::writeTo(path);
        signalled.acquire();
        delays.push_back((heard - start - 0.5) * 1e3);
    }
    close(kernel);
    close(timer);
    bench::report("p50", bench::quantile(delays, 0.5));
    bench::report("p99", bench::quantile(delays, 0.99));
}

}  // namespace

int main(int count, char** arguments) {
    const std::string mode = count > 3 ? arguments[1] : "";
    if (mode == "changes" && count == 4) {
        Database database(std::string(arguments[3]) + "/journal.db");
        benchChanges(database, arguments[2]);
        if (chdir(arguments[2]) != 0) fail(arguments[2]);
        benchLookUps(database);
    } else if (mode == "storm" && count == 5) {
        Database database(std::string(arguments[3]) + "/journal.db");
        benchStorm(database, arguments[2], std::atoi(arguments[4]));
    } else if (mode == "signals" && count == 4) {
        benchSignals(arguments[2], std::atoi(arguments[3]));
    } else {
        std::fputs(
            "usage: tidewell-bench-history-floor changes TREE SCRATCH\n"
            "       tidewell-bench-history-floor storm FOLDER SCRATCH FILES\n"
            "       tidewell-bench-history-floor signals FOLDER WRITES\n",
            stderr);
        return 2;
    }
}

// The same facts as a listing needs, fetched through GIO: the best that a file browser gets from
// the library it has today.
//
//   tidewell-bench-gio FOLDER ROUNDS
//
// Goes down into sub-folders. Prints the median of the rounds in microseconds an entry, twice: with
// the three extended attributes asked for by name, as a listing needs them, and with whatever there
// is ("*"), which is cheaper as long as the files have none.

#include <gio/gio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/Measure.h"

namespace {

constexpr const char* facts =
    "standard::name,standard::type,standard::size,standard::is-symlink,time::modified,"
    "time::modified-usec,time::created,time::created-usec,access::can-write,unix::inode,"
    "unix::device,unix::mode,unix::nlink,";
constexpr const char* named =
    "xattr::com.quenby.lastuseddate#PS,xattr::com.quenby.metadata:_kMDItemUserTags,"
    "xattr::com.quenby.favorite-rank.number#PS";

std::uint64_t visit(GFile* folder, const std::string& attributes) {
    GError* error = nullptr;
    GFileEnumerator* entries = g_file_enumerate_children(
        folder, attributes.c_str(), G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS, nullptr, &error);
    if (!entries) {
        std::fprintf(stderr, "%s\n", error->message);
        std::exit(1);
    }
    std::uint64_t count = 0;
    std::vector<GFile*> children;
    while (GFileInfo* info = g_file_enumerator_next_file(entries, nullptr, nullptr)) {
        ++count;
        if (g_file_info_get_file_type(info) == G_FILE_TYPE_DIRECTORY) {
            children.push_back(g_file_get_child(folder, g_file_info_get_name(info)));
        }
        g_object_unref(info);
    }
    g_object_unref(entries);
    for (GFile* child : children) {
        count += visit(child, attributes);
        g_object_unref(child);
    }
    return count;
}

double microsecondsAnEntry(GFile* folder, const std::string& attributes) {
    const double start = bench::now();
    const std::uint64_t entries = visit(folder, attributes);
    return (bench::now() - start) * 1e6 / static_cast<double>(entries);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: tidewell-bench-gio FOLDER ROUNDS\n", stderr);
        return 2;
    }
    GFile* folder = g_file_new_for_path(arguments[1]);
    std::vector<double> byName;
    std::vector<double> all;
    for (int round = std::max(1, std::atoi(arguments[2])); round > 0; --round) {
        byName.push_back(microsecondsAnEntry(folder, std::string(facts) + named));
        all.push_back(microsecondsAnEntry(folder, std::string(facts) + "xattr::*"));
    }
    g_object_unref(folder);
    bench::report("gio.list", bench::median(byName));
    bench::report("gio.all", bench::median(all));
}

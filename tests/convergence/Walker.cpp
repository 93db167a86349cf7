#include "tests/convergence/Walker.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>

namespace tests {

namespace {

struct Walk {
    const std::string& base;
    const std::string& attribute;
    std::vector<WalkedRow> rows = {};

    /// Adds the row and what is below it; returns the size of all files there.
    std::uint64_t add(const std::string& path, const ObjectKey& folder, bool isShown) {
        const auto native = base + "/" + path;
        struct stat status {};
        lstat(native.c_str(), &status);
        WalkedRow row;
        const auto name = path.substr(path.rfind('/') + 1);
        row.path = path;
        row.place = placeOf(folder, name);
        row.object = objectKey(native);
        row.modified = status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec;
        row.hasAttribute = lgetxattr(native.c_str(), attribute.c_str(), nullptr, 0) >= 0;
        row.isShown = isShown;
        if (!S_ISDIR(status.st_mode)) {
            row.kind = S_ISLNK(status.st_mode) ? 'l' : 'f';
            row.size = static_cast<std::uint64_t>(status.st_size);
            row.links = status.st_nlink;
            rows.push_back(row);
            return row.kind == 'f' ? row.size : 0;
        }
        row.kind = isPackageName(name) ? 'p' : 'd';
        const auto index = rows.size();
        rows.push_back(row);
        std::uint64_t total = 0;
        for (const auto& entry : std::filesystem::directory_iterator(native)) {
            const auto child = entry.path().filename().string();
            ++rows[index].entries;
            total += add(path + "/" + child, row.object,
                         isShown && row.kind == 'd' && !child.starts_with('.'));
        }
        if (row.kind == 'p') rows[index].size = total;
        return total;
    }
};

}  // namespace

std::vector<WalkedRow> walk(const std::string& base, const std::string& attribute,
                            const std::set<std::string>& applications) {
    Walk walk{base, attribute};
    walk.add("s", {}, true);
    for (const auto& application : applications) {
        const auto first = walk.rows.size();
        const auto container = "l/" + application, root = container + "/Documents";
        walk.add(root, objectKey(base + "/" + container), true);
        for (auto i = first; i < walk.rows.size(); ++i) {
            walk.rows[i].path.replace(0, root.size(), "s/" + application);
        }
    }
    return std::move(walk.rows);
}

}  // namespace tests

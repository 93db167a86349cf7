#include "tidewell/fs/DocIDPath.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace tidewell {

namespace {

bool skip(const char*& text, std::string_view literal) {
    if (std::strncmp(text, literal.data(), literal.size()) != 0) return false;
    text += literal.size();
    return true;
}

/// False only where the number is out of range; no digits at all read as 0.
bool readNumber(const char*& text, std::int64_t& number) {
    char* end = nullptr;
    errno = 0;
    number = std::strtoll(text, &end, 10);
    text = end;
    return errno == 0;
}

}  // namespace

bool parseDocIDPath(const char* path, std::int64_t& documentID, std::int64_t& source,
                    std::int64_t& destination) {
    while (*path == '/') ++path;
    if (!skip(path, ".docid/")) return false;
    if (*path >= '0' && *path <= '9') {
        std::int64_t device = 0;
        if (!readNumber(path, device) || !skip(path, "/")) return false;
    }
    return skip(path, "changed/") && readNumber(path, documentID) && skip(path, "/src=") &&
           readNumber(path, source) && skip(path, ",dst=") && readNumber(path, destination) &&
           *path == '\0';
}

}  // namespace tidewell

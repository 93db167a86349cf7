#include "cli/thumbnails.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/commands.h"
#include "cli/format.h"
#include "cli/text.h"

namespace cli {

using platform::Result;
using Thumbnail = host::Thumbnail;

namespace {

Result<void> writeFile(const std::string& path, platform::QSDataView bytes) {
    const auto failed = [&] { return std::unexpected(platform::errorFromErrno(errno, path)); };
    // Whole or not at all, also where a file of that name is there already.
    const auto temporary = path + ".part";
    const int fd =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return failed();
    bool isWritten = true;
    while (isWritten && !bytes.empty()) {
        const auto count = write(fd, bytes.data(), bytes.size());
        isWritten = count > 0;
        if (isWritten) bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    isWritten = close(fd) == 0 && isWritten;
    if (isWritten && std::rename(temporary.c_str(), path.c_str()) == 0) return {};
    auto error = failed();
    unlink(temporary.c_str());
    return error;
}

/// The name of the file: the identifier without the character that shells take for a comment.
std::string fileName(const std::string& identifier) {
    auto name = identifier.starts_with('#') ? identifier.substr(1) : identifier;
    for (auto& c : name) {
        if (c == '/') c = '_';
    }
    return name + ".png";
}

void print(const Arguments& arguments, Output& output, const Thumbnail& thumbnail,
           const std::string& path) {
    auto& out = output.text();
    if (!arguments.json) {
        out += thumbnail.picture
                   ? shown(path, output.style())
                   : "no thumbnail: " + shown(thumbnail.itemIdentifier, output.style());
        out += '\n';
        return;
    }
    const auto append = [&](std::string_view key, const std::optional<std::string>& value) {
        out += key;
        value ? appendJsonString(out, *value) : void(out += "null");
    };
    append("{\"itemIdentifier\":", thumbnail.itemIdentifier);
    append(",\"thumbnail\":", thumbnail.picture ? std::optional(path) : std::nullopt);
    append(",\"typeIdentifier\":", thumbnail.type);
    out += "}\n";
}

}  // namespace

Result<ExitCode> writeThumbnails(const Arguments& arguments, const host::DocumentService& service,
                                 Output& output) {
    std::vector<std::string> identifiers;
    auto code = ExitCode::Done;
    for (const auto& item : arguments.metadata.items) {
        auto name = parseItem(item);
        if (name && name->isPath) {
            auto identifier = service.resolve(name->text);
            name = identifier ? Result<ItemName>(ItemName{std::move(*identifier)})
                              : std::unexpected(std::move(identifier.error()));
        }
        if (name) {
            identifiers.push_back(std::move(name->text));
        } else {
            code = report(name.error(), item, arguments.json);
        }
    }
    const auto thumbnails = service.session().thumbnails(identifiers);
    if (!thumbnails) return std::unexpected(thumbnails.error());
    for (const auto& thumbnail : *thumbnails) {
        const auto path = arguments.metadata.folder + "/" + fileName(thumbnail.itemIdentifier);
        if (thumbnail.picture) {
            auto written = writeFile(path, *thumbnail.picture);
            if (!written) return std::unexpected(std::move(written.error()));
        }
        print(arguments, output, thumbnail, path);
    }
    return code;
}

Result<ExitCode> writeContent(const host::DocumentService& service, Output& output,
                              const host::ItemTarget& target) {
    const auto read = service.readContent(target, [&](platform::QSDataView bytes) {
        output.text() += platform::stringFromData(bytes);
        return output.pace();
    });
    if (!read) return std::unexpected(read.error());
    return ExitCode::Done;
}

}  // namespace cli

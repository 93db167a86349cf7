// tidewell-icon PIXELS: decodes the one picture file on standard input and writes its pixels to
// standard output. It expects the worst of the file, and lives no longer than the picture takes.
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/icons/IconFormat.h"
#include "platform/icons/helper/Confinement.h"
#include "platform/icons/helper/Rendering.h"

namespace {

std::vector<std::uint8_t> readInput() {
    std::vector<std::uint8_t> file(platform::largestIconFile);
    std::size_t size = 0;
    for (ssize_t count = 1; count > 0 && size < file.size();) {
        count = read(STDIN_FILENO, file.data() + size, file.size() - size);
        if (count > 0) size += static_cast<std::size_t>(count);
    }
    file.resize(size);
    return file;
}

bool writeOutput(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const auto count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int side = 0;
    const std::string_view text = argc == 2 ? argv[1] : "";
    std::from_chars(text.data(), text.data() + text.size(), side);
    if (side < 1 || side > platform::largestIconPixels) return 2;
    if (!platform::confineThisProcess()) return 3;
    const auto pixels = platform::renderIcon(readInput(), side);
    if (pixels.empty()) return 1;
    const platform::IconBitmapHeader header{platform::iconBitmapMagic,
                                            static_cast<std::uint32_t>(side)};
    const bool isWritten = writeOutput(std::as_bytes(std::span(&header, 1))) &&
                           writeOutput(std::as_bytes(std::span(pixels)));
    return isWritten ? 0 : 1;
}

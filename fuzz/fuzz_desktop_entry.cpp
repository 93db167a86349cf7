// Desktop entries and overrides: files that anybody may leave in a data folder.

#include <string_view>

#include "fuzz/Fuzz.h"
#include "platform/registry/DesktopEntry.h"
#include "platform/registry/RegistrySources.h"

using namespace platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const auto languages = localeNames("sr_RS.UTF-8@latin");
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    const auto entry = parseDesktopEntry(text, languages);
    if (!entry) return 0;
    fuzz::require(entry->renamedFrom.size() <= 32, "former names are bounded");
    fuzz::require(entry->name.size() + entry->icon.size() <= size, "text comes from the bytes");
    if (isBundleIdentifier(entry->flatpak)) {
        fuzz::require(entry->flatpak.find('/') == std::string::npos, "identifiers are names");
    }
    return 0;
}

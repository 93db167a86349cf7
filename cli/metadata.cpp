#include "cli/metadata.h"

#include "cli/format.h"

namespace cli {

using platform::Result;

Result<ExitCode> setMetadata(const Arguments& arguments, const host::DocumentService& service,
                             Output& output, const host::ItemTarget& target) {
    const auto item = [&] {
        if (arguments.command == Command::Tag)
            return service.session().setTags(target, arguments.metadata.labels);
        if (arguments.command == Command::Favorite) {
            return service.session().setFavoriteRank(target, arguments.metadata.rank);
        }
        return service.session().setLastUsedDate(target, arguments.metadata.date);
    }();
    if (!item) return std::unexpected(item.error());
    printItem(arguments, output, *item);
    return ExitCode::Done;
}

void printItem(const Arguments& arguments, Output& output, const host::ItemRecord& item) {
    if (arguments.json) {
        appendJson(output.text(), item);
    } else {
        appendFields(output.text(), item, output.style());
    }
}

}  // namespace cli

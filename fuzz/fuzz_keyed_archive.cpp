// Any bytes as a keyed archive: what decodes is archived, decoded and archived again to the same
// bytes, and no object of a class that the caller did not list comes out.

#include <algorithm>

#include "fuzz/Fuzz.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/foundation/QSKeyedUnarchiver.h"

using namespace platform;
using enum ArchiveClass;

namespace {

bool holdsOnlyStringsAndArrays(const QSPropertyList& value) {
    const auto* elements = value.asArray();
    return value.asString() ||
           (elements && std::all_of(elements->begin(), elements->end(), holdsOnlyStringsAndArrays));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    constexpr ArchiveClasses all = {Date, String, Number, Array, Dictionary, Data};
    const QSDataView data(bytes, size);
    const auto root = unarchivedObjectOfClasses(all, data);
    const auto tags = unarchivedObjectOfClasses({Array, String}, data);
    fuzz::require(!tags || (root && holdsOnlyStringsAndArrays(*tags)), "only listed classes come");
    if (!root) return 0;
    const auto archived = archivedDataWithRootObject(*root);
    fuzz::require(archived.has_value(), "what decodes can be archived");
    const auto again = unarchivedObjectOfClasses(all, *archived, fuzz::wideLimits);
    fuzz::require(again.has_value(), "what is archived can be decoded");
    fuzz::require(archivedDataWithRootObject(*again) == archived, "what is decoded is the same");
    return 0;
}

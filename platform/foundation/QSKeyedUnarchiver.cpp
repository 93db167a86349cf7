#include "platform/foundation/QSKeyedUnarchiver.h"

#include <cmath>

#include "platform/foundation/ExpansionBudget.h"
#include "platform/foundation/KeyedArchiveNames.h"

namespace platform {

namespace {

using namespace keyedArchive;
using Dictionary = QSPropertyList::Dictionary;
using Array = QSPropertyList::Array;

std::unexpected<QSError> corrupt(std::string_view what) {
    return std::unexpected(mochaError(QSCoderReadCorruptError, what));
}

/// The class of an object in "$objects"; nothing for what is none that can be archived.
std::optional<ArchiveClass> classOfPlainObject(const QSPropertyList& object) {
    if (object.asString()) return ArchiveClass::String;
    if (object.asBool() || object.asReal() || object.asSigned() || object.asUnsigned()) {
        return ArchiveClass::Number;
    }
    if (object.asData()) return ArchiveClass::Data;
    return std::nullopt;
}

std::optional<ArchiveClass> classNamed(std::string_view name) {
    if (name == dateClass) return ArchiveClass::Date;
    if (name == arrayClass) return ArchiveClass::Array;
    if (name == dictionaryClass) return ArchiveClass::Dictionary;
    return std::nullopt;
}

std::size_t payloadSize(const QSPropertyList& object) {
    if (const auto* text = object.asString()) return text->size();
    if (const auto* data = object.asData()) return data->size();
    return 0;
}

/// Builds objects afresh for every reference to them: the budget bounds what that makes of shared
/// objects, and a cycle ends at the limit of the depth.
class Unarchiver {
  public:
    Unarchiver(const Array& objects, ArchiveClasses allowed, const QSPropertyListLimits& limits)
        : objects_(objects),
          allowed_(allowed),
          depth_(limits.depth),
          budget_(limits.expandedBytes) {}

    Result<QSPropertyList> object(const QSPropertyList* reference, std::size_t depth) {
        const auto* stored = target(reference);
        if (!stored) return corrupt("a reference leads nowhere");
        const auto kind =
            stored->asDictionary() ? classOfRecord(*stored) : classOfPlainObject(*stored);
        if (!kind || !allowed_.contains(*kind)) {
            return corrupt("an object is of a class that is not allowed");
        }
        if (depth > depth_) return corrupt("the archive is nested too deeply");
        switch (*kind) {
            case ArchiveClass::Date:
                return date(*stored);
            case ArchiveClass::Array:
                return array(*stored, depth);
            case ArchiveClass::Dictionary:
                return dictionary(*stored, depth);
            default:
                break;
        }
        if (!budget_.spend(payloadSize(*stored))) return tooFar();
        return *stored;
    }

  private:
    static std::unexpected<QSError> tooFar() { return corrupt("the archive expands too far"); }

    /// The object that a reference names; null where there is none. The first object, which stands
    /// for null, is never one.
    [[nodiscard]] const QSPropertyList* target(const QSPropertyList* reference) const {
        const auto* uid = reference ? reference->asUID() : nullptr;
        return uid && uid->value > 0 && uid->value < objects_.size() ? &objects_[uid->value]
                                                                     : nullptr;
    }

    [[nodiscard]] std::optional<ArchiveClass> classOfRecord(const QSPropertyList& object) const {
        const auto* record = target(object.find(classKey));
        const auto* found = record ? record->find(classNameKey) : nullptr;
        const auto* name = found ? found->asString() : nullptr;
        const auto* ancestry = record ? record->find(classesKey) : nullptr;
        const auto* classes = ancestry ? ancestry->asArray() : nullptr;
        if (!name || !classes || classes->empty() || classes->front() != *found)
            return std::nullopt;
        return classNamed(*name);
    }

    static const Array* members(const QSPropertyList& object, std::string_view key) {
        const auto* found = object.find(key);
        return found ? found->asArray() : nullptr;
    }

    static Result<QSPropertyList> date(const QSPropertyList& object) {
        const auto* time = object.find(timeKey);
        const auto* interval = time ? time->asReal() : nullptr;
        if (!interval || !std::isfinite(*interval)) return corrupt("a date has no time");
        return QSDate::dateWithTimeIntervalSinceReferenceDate(*interval);
    }

    Result<QSPropertyList> array(const QSPropertyList& object, std::size_t depth) {
        const auto* references = members(object, elementsKey);
        if (!references) return corrupt("an array has no elements");
        if (!budget_.spend(references->size() * sizeof(QSPropertyList))) return tooFar();
        Array elements;
        elements.reserve(references->size());
        for (const auto& reference : *references) {
            auto element = this->object(&reference, depth + 1);
            if (!element) return element;
            elements.push_back(std::move(*element));
        }
        return elements;
    }

    Result<QSPropertyList> dictionary(const QSPropertyList& object, std::size_t depth) {
        const auto* keys = members(object, keysKey);
        const auto* values = members(object, elementsKey);
        if (!keys || !values || keys->size() != values->size()) {
            return corrupt("a dictionary has unequal keys and values");
        }
        if (!budget_.spend(keys->size() * ExpansionBudget::dictionaryEntry)) return tooFar();
        Dictionary entries;
        for (std::size_t i = 0; i < keys->size(); ++i) {
            const auto* stored = target(&(*keys)[i]);
            const auto* key = stored ? stored->asString() : nullptr;
            if (!key) return corrupt("a key is not a string");
            if (!budget_.spend(key->size())) return tooFar();
            auto value = this->object(&(*values)[i], depth + 1);
            if (!value) return value;
            if (!entries.emplace(*key, std::move(*value)).second)
                return corrupt("a key occurs twice");
        }
        return entries;
    }

    const Array& objects_;
    const ArchiveClasses allowed_;
    const std::size_t depth_;
    ExpansionBudget budget_;
};

}  // namespace

Result<QSPropertyList> unarchivedObjectOfClasses(ArchiveClasses allowed, QSDataView data,
                                                 const QSPropertyListLimits& limits) {
    const auto archive = propertyListWithBinaryData(data, limits);
    if (!archive) return corrupt("not a keyed archive: " + archive.error().description());
    const auto* foundVersion = archive->find(versionKey);
    const auto* foundArchiver = archive->find(archiverKey);
    if (!foundVersion || *foundVersion != version || !foundArchiver || *foundArchiver != archiver) {
        return corrupt("not a keyed archive");
    }
    const auto* objects = archive->find(objectsKey);
    const auto* top = archive->find(topKey);
    if (!objects || !objects->asArray() || !top) return corrupt("not a keyed archive");
    return Unarchiver(*objects->asArray(), allowed, limits).object(top->find(rootKey), 0);
}

}  // namespace platform

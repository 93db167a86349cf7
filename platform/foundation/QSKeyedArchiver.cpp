#include "platform/foundation/QSKeyedArchiver.h"

#include <map>

#include "platform/foundation/KeyedArchiveNames.h"

namespace platform {

namespace {

using namespace keyedArchive;
using Dictionary = QSPropertyList::Dictionary;
using Array = QSPropertyList::Array;
using UID = QSPropertyList::UID;

/// Fills "$objects": every object once per place that holds it, a class record once, ahead of the
/// first object that names it.
class Archiver {
  public:
    Result<QSData> archive(const QSPropertyList& root) {
        objects_.emplace_back(null);
        const auto reference = add(root, 0);
        if (!reference) return std::unexpected(reference.error());
        return binaryData(
            Dictionary{{std::string(versionKey), version},
                       {std::string(archiverKey), archiver},
                       {std::string(topKey), Dictionary{{std::string(rootKey), *reference}}},
                       {std::string(objectsKey), std::move(objects_)}});
    }

  private:
    UID append(QSPropertyList object) {
        objects_.push_back(std::move(object));
        return {objects_.size() - 1};
    }

    UID classRecord(std::string_view name) {
        const auto known = classes_.find(name);
        if (known != classes_.end()) return known->second;
        const auto reference = append(Dictionary{
            {std::string(classNameKey), name}, {std::string(classesKey), Array{name, rootClass}}});
        classes_.emplace(name, reference);
        return reference;
    }

    Result<UID> add(const QSPropertyList& value, std::size_t depth) {
        if (depth > QSPropertyListLimits{}.depth) {
            return std::unexpected(mochaError(QSCoderInvalidValueError, "nested too deeply"));
        }
        if (value.asUID()) {
            return std::unexpected(
                mochaError(QSCoderInvalidValueError, "a UID cannot be archived"));
        }
        if (const auto* date = value.asDate()) {
            const auto reference = classRecord(dateClass);
            return append(
                Dictionary{{std::string(classKey), reference},
                           {std::string(timeKey), date->timeIntervalSinceReferenceDate()}});
        }
        if (const auto* array = value.asArray()) return addArray(*array, depth + 1);
        if (const auto* dictionary = value.asDictionary())
            return addDictionary(*dictionary, depth + 1);
        return append(value);
    }

    Result<UID> addArray(const Array& array, std::size_t depth) {
        Dictionary record{{std::string(classKey), classRecord(arrayClass)}};
        Array references;
        for (const auto& element : array) {
            const auto reference = add(element, depth);
            if (!reference) return reference;
            references.emplace_back(*reference);
        }
        record.emplace(elementsKey, std::move(references));
        return append(std::move(record));
    }

    Result<UID> addDictionary(const Dictionary& dictionary, std::size_t depth) {
        Dictionary record{{std::string(classKey), classRecord(dictionaryClass)}};
        Array keys;
        Array values;
        for (const auto& [key, value] : dictionary) {
            keys.emplace_back(append(key));
            const auto reference = add(value, depth);
            if (!reference) return reference;
            values.emplace_back(*reference);
        }
        record.emplace(keysKey, std::move(keys));
        record.emplace(elementsKey, std::move(values));
        return append(std::move(record));
    }

    Array objects_;
    std::map<std::string_view, UID> classes_;
};

}  // namespace

Result<QSData> archivedDataWithRootObject(const QSPropertyList& root) {
    return Archiver().archive(root);
}

}  // namespace platform

#pragma once

#include <optional>

#include "platform/files/FileAttributes.h"
#include "platform/volume/Witness.h"

namespace platform {

/// A second witness, kept with the documents: it is still there when the store and the other
/// witness are deleted, or put back together to an earlier state.
struct FolderWitness {
    Witness::Record record;
    bool isOfThisFolder = false;  ///< false: it came with a copy of another folder

    /// Of the folder that is open (O_PATH will do); none if it is missing or unreadable.
    [[nodiscard]] static std::optional<FolderWitness> read(int folder,
                                                           const ObjectIdentity& identity);

    /// Best effort: false where the file system is read-only, full or has no such attributes.
    [[nodiscard]] static bool write(int folder, const ObjectIdentity& identity,
                                    const Witness::Record& record);
};

}  // namespace platform

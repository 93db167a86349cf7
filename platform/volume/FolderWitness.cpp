#include "platform/volume/FolderWitness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>

#include "platform/files/AttributeReader.h"
#include "platform/files/ExtendedAttributes.h"
#include "platform/volume/VolumeState.h"

namespace platform {

namespace {

std::string lineOf(const ObjectIdentity& identity) {
    return "folder " + std::to_string(identity.inode) + " " + std::to_string(identity.generation);
}

}  // namespace

std::optional<FolderWitness> FolderWitness::read(int folder, const ObjectIdentity& identity) {
    // A descriptor that was opened with O_PATH has no attributes of its own.
    const std::string path = "/proc/self/fd/" + std::to_string(folder);
    std::array<char, 512> text;
    const ssize_t size = getxattr(path.c_str(), storedAttributeName(folderWitnessAttribute).c_str(),
                                  text.data(), text.size());
    if (size < 0) return std::nullopt;
    const auto found = Witness::decode({text.data(), static_cast<std::size_t>(size)});
    if (!found) return std::nullopt;
    return FolderWitness{found->record, found->line == lineOf(identity)};
}

bool FolderWitness::write(int folder, const ObjectIdentity& identity,
                          const Witness::Record& record) {
    const std::string text = Witness::encode({lineOf(identity), record});
    return setExtendedAttribute(
               folder, folderWitnessAttribute,
               QSDataView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size())) == 0;
}

void VolumeService::State::writeFolderWitness() {
    if (!folderWitnessIsDue.exchange(false)) return;
    const auto& files = configuration.files;
    const auto folder = files.openObject(files.storageURL(), O_RDONLY | O_DIRECTORY);
    if (!folder) return;
    Witness::Record record;
    ObjectIdentity identity;
    {
        const std::scoped_lock lock(storeMutex);
        record = store->witnessRecord();
        identity = store->state().volume.root;
    }
    struct stat before {};
    struct stat after {};
    const auto known = readState(folder->get(), "", nullptr);
    if (!known || known->inode != identity.inode || fstat(folder->get(), &before) != 0) return;
    if (!FolderWitness::write(folder->get(), identity, record)) return;
    // The write is no change of the folder, so the state that it has now is the one that is known.
    const auto now = readState(folder->get(), "", nullptr);
    if (!now || fstat(folder->get(), &after) != 0) return;
    const bool isOurs = before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
                        before.st_mtim.tv_nsec == after.st_mtim.tv_nsec;
    const std::unique_lock lock(indexMutex);
    const auto root = roots.front().node;
    if (isOurs && index.node(root).stamp == known->stamp) {
        index.setState(root, now->kind, now->stamp, true);
    }
}

}  // namespace platform

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "platform/files/ExtendedAttributes.h"
#include "platform/files/FileDescriptor.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "tests/tidewell/MutationsFixture.h"
#include "tidewell/common/Utilities.h"
#include "tidewell/items/LocalAppLibraryItem.h"
#include "tidewell/items/LocalItem.h"

namespace tidewell {
namespace {

using ItemTest = tests::MutationsFixture;

TEST_F(ItemTest, FileFolderAndRoot) {
    const auto path = scratch.makeFile("storage/d/a.txt", "12345");
    (void)file("d/.hidden");
    const auto folderItem = LocalItem::initWithURL(url("d"));
    const auto item = LocalItem::initWithURL(url("d/a.txt"));
    ASSERT_TRUE(item && folderItem);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(item->parentItemIdentifier(), folderItem->itemIdentifier());
    EXPECT_EQ(item->filename(), "a.txt");
    EXPECT_EQ(item->typeIdentifier(), "text/plain");
    EXPECT_EQ(item->documentSize(), 5u);
    EXPECT_EQ(item->contentModificationDate(),
              (QSDate{status.st_mtim.tv_sec, static_cast<std::uint32_t>(status.st_mtim.tv_nsec)}));
    EXPECT_EQ(item->childItemCount(), std::nullopt);
    EXPECT_EQ(item->capabilities(), 63u);
    EXPECT_EQ(item->fileID(), static_cast<std::int64_t>(status.st_ino));
    EXPECT_EQ("did=" + std::to_string(item->docID().value()), item->itemIdentifier());
    EXPECT_TRUE(folderItem->isFolder());
    EXPECT_EQ(folderItem->documentSize(), std::nullopt);
    EXPECT_EQ(folderItem->docID(), std::nullopt);
    EXPECT_EQ(folderItem->childItemCount(), 2) << "hidden entries count";
    EXPECT_EQ(LocalItem::initWithFileIdentifier(status.st_ino)->itemIdentifier(),
              item->itemIdentifier());

    const auto root = LocalItem::initWithURL(url());
    EXPECT_EQ(root->parentItemIdentifier(), root->itemIdentifier());
    EXPECT_EQ(root->capabilities(), 1u);
    EXPECT_EQ(folderItem->parentItemIdentifier(), root->itemIdentifier());
}

TEST_F(ItemTest, WhatWasSeenInAFolderThatMovesIsInThatFolder) {
    (void)file("d/a.txt");
    const auto seen = url("d/a.txt");
    const auto parent = LocalItem::initWithURL(seen)->parentItemIdentifier();
    std::filesystem::rename(storage() / "d", storage() / "e");
    EXPECT_EQ(LocalItem::initWithURL(seen)->parentItemIdentifier(), parent);
    (void)file("d");
    EXPECT_EQ(LocalItem::initWithURL(seen)->parentItemIdentifier(), parent);
}

TEST_F(ItemTest, TrashNeedsTheAdjacentPairAndPackagesOfSomeTypesHaveASize) {
    for (const auto& [path, isTrashed] : {std::pair{".Trash/a.txt", true},
                                          {".Trash/sub/a.txt", true},
                                          {"x/.Trash/a.txt", false},
                                          {".Trashy/a", false}}) {
        (void)file(path);
        EXPECT_EQ(LocalItem::initWithURL(url(path))->isTrashed(), isTrashed) << path;
    }
    scratch.makeFile("storage/song.lutebox/a/b", "12345");
    scratch.makeFile("storage/song.lutebox/c", "123");
    std::filesystem::create_directory_symlink(scratch.path(), storage() / "song.lutebox/link");
    const auto package = LocalItem::initWithURL(url("song.lutebox"));
    EXPECT_TRUE(package->isPackage());
    EXPECT_FALSE(package->isFolder());
    EXPECT_EQ(package->documentSize(), 8u);
}

TEST_F(ItemTest, ChildCountSaturates) {
    const auto busy = folder("busy");
    for (int i = 0; i < 65'600; ++i) {
        ASSERT_EQ(mknod((busy / std::to_string(i)).c_str(), S_IFREG | 0600, 0), 0);
    }
    EXPECT_EQ(LocalItem::initWithURL(url("busy"))->childItemCount(), 65'535);
}

TEST_F(ItemTest, MetadataOfTheWrongClassIsMissingAndTheItemWhole) {
    const FileDescriptor fd(open(file("a").c_str(), O_RDONLY));
    const std::vector<QSData> wrong = {
        dataFromString("no archive"),
        {},
        archivedDataWithRootObject("text").value(),
        archivedDataWithRootObject(QSPropertyList::Array{1, 2}).value(),
        archivedDataWithRootObject(QSPropertyList::Dictionary{{"a", 1}}).value()};
    for (const auto& bytes : wrong) {
        for (const auto name : {LocalItem::xattrLastUsedDateName(), LocalItem::xattrTagDataName(),
                                LocalItem::xattrFavoriteRankName()}) {
            ASSERT_EQ(setExtendedAttribute(fd.get(), name, bytes), 0);
        }
        log->clear();
        const auto item = LocalItem::initWithURL(url("a"));
        ASSERT_TRUE(item);
        EXPECT_FALSE(item->lastUsedDate() || item->tagData() || item->favoriteRank());
        EXPECT_THAT(logged(LogLevel::Error, ""), testing::IsEmpty());
    }
}

TEST_F(ItemTest, AppLibraryItem) {
    for (const auto* name : {"Inbox", ".Trash", "a", "b"}) {
        scratch.makeFolder("containers/org.a/Documents/" + std::string(name));
    }
    const auto container = libraryURL().URLByDeletingLastPathComponent();
    const auto library = LocalAppLibraryItem::initFrom({"org.a", container, "An App"});
    ASSERT_TRUE(library);
    EXPECT_EQ(library->itemIdentifierAsString(), "#org.a");
    EXPECT_EQ(library->parentItemIdentifier(), QSFileProviderRootContainerItemIdentifier);
    EXPECT_EQ(library->filename(), "An App");
    EXPECT_EQ(library->childItemCount(), 2);
    EXPECT_EQ(library->capabilities(), 3u);
    EXPECT_TRUE(library->qp_isContainer());
    EXPECT_EQ(library->qp_appContainerBundleIdentifier(), "org.a");

    EXPECT_EQ(proxyAt(container)->bundleIdentifier, "org.a");
    EXPECT_FALSE(proxyAt(libraryURL("a")));
    EXPECT_FALSE(proxyWithContaining(QSURL::fileURLWithPath(container.path() + "2/x")));
    const auto inner = LocalItem::initWithURL(libraryURL("a"));
    EXPECT_EQ(inner->parentItemIdentifierAsString(), "#org.a");
    EXPECT_EQ(inner->qp_beaconDomainIdentifier(), "org.a");
    EXPECT_FALSE(LocalItem::initWithURL(libraryURL("Inbox")));
    const auto nameless = LocalAppLibraryItem::initFrom({{}, container, {}});
    EXPECT_EQ(nameless->itemIdentifier(), "#(null)");
    EXPECT_EQ(nameless->filename(), "Documents");
    EXPECT_FALSE(LocalAppLibraryItem::initFrom({"org.a", {}, {}}));
}

}  // namespace
}  // namespace tidewell

#include "platform/volume/StorageCatalog.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/platform/volume/VolumeFixture.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

/// Storages with stores below "data" and "state", as processes find them one after another.
class StorageCatalogTest : public tests::VolumeFixture {
  protected:
    static QSError errorOf(const Result<std::string>& name) {
        return name ? QSError() : name.error();
    }
    StorageCatalog::Storage storageAt(const fs::path& path) {
        files = FileSystem::open(path.string()).value();
        const auto root = files->freshAttributes(files->storageURL()).value()->identity;
        return {path, files->nativeStoragePath(), {uuid, root}, isWeak};
    }
    /// The name of the storage at the path, whose store gives out an identifier.
    Result<std::string> find(const fs::path& path, bool acceptsReplacement = false) {
        const auto storage = storageAt(path);
        auto catalog = StorageCatalog::load(scratch / "data", scratch / "state");
        if (!catalog) return std::unexpected(catalog.error());
        auto name = catalog->nameOf(storage, acceptsReplacement);
        if (!name) return name;
        scratch.makeFile(fs::relative(path, scratch.path()).string() + "/document");
        adjust = [this, own = *name](VolumeService::Configuration& configuration) {
            configuration.dataFolder = scratch / "data/storages" / own;
            configuration.stateFolder = scratch / "state/storages" / own;
        };
        open();
        (void)identifyAll({"document"});
        service.reset();
        return name;
    }
    fs::path makeStorage(const std::string& name) { return scratch.makeFolder(name); }

    std::string uuid = "0123";
    bool isWeak = false;
};

TEST_F(StorageCatalogTest, AStorageIsKnownWhereverItLies) {
    const auto a = makeStorage("a");
    const auto b = makeStorage("b\n%");
    const auto own = find(a).value();
    EXPECT_NE(find(b).value(), own);
    EXPECT_EQ(find(a).value(), own);
    const auto renamed = scratch / "renamed";
    fs::rename(a, renamed);
    EXPECT_EQ(find(renamed).value(), own);
    EXPECT_NE(find(makeStorage("a")).value(), own) << "what was there lies elsewhere now";
    uuid = "";  // a system that has none
    EXPECT_EQ(find(renamed).value(), own);
    uuid = "4567";
    EXPECT_TRUE(StorageCatalog::meansMissing(errorOf(find(renamed)))) << "another file system";
}

TEST_F(StorageCatalogTest, WhatTookItsPlaceIsRefusedUnlessItIsAccepted) {
    const auto path = makeStorage("a");
    const auto aside = scratch / "aside";
    const auto own = find(path).value();
    const std::vector<std::function<void()>> ways{
        [&] { fs::create_directory(path); }, [&] { fs::copy(aside, path); },
        [&] { fs::create_directory_symlink(makeStorage("other"), path); }};
    for (const auto& replace : ways) {
        // Out of the way, so that its other paths do not lead to it.
        fs::rename(path, aside);
        replace();
        const auto error = errorOf(find(path));
        EXPECT_TRUE(StorageCatalog::meansMissing(error)) << error.description();
        fs::remove_all(path);
        fs::rename(aside, path);
        EXPECT_EQ(find(path).value(), own);
    }
    fs::rename(path, aside);
    const auto catalog = StorageCatalog::load(scratch / "data", scratch / "state");
    const auto nothing = errorFromErrno(ENOENT, path.string());
    EXPECT_TRUE(StorageCatalog::meansMissing(catalog->errorForMissing(path, nothing)));
    EXPECT_EQ(catalog->errorForMissing(scratch / "never", nothing), nothing);
    fs::create_directory(path);
    const auto next = find(path, true).value();
    EXPECT_NE(next, own);
    EXPECT_EQ(find(path).value(), next);
    EXPECT_EQ(find(aside).value(), own) << "and is still known";
}

TEST_F(StorageCatalogTest, AWeakRootIsKnownByFileSystemAndPath) {
    isWeak = true;
    const auto path = makeStorage("a");
    const auto own = find(path).value();
    fs::remove_all(path);
    EXPECT_EQ(find(makeStorage("a")).value(), own) << "its number is another one now";
    isWeak = false;
    EXPECT_TRUE(StorageCatalog::meansMissing(errorOf(find(path)))) << "another kind of file system";
}

TEST_F(StorageCatalogTest, ARecordThatCannotBeReadIsNoNewStorage) {
    const auto path = makeStorage("a");
    const auto own = find(path).value();
    const auto record = scratch / "data/storages" / own / "storage.conf";
    fs::rename(record, scratch / "kept");
    EXPECT_EQ(errorOf(find(path)).code, ENOENT) << "the store is there without its record";
    fs::create_directory(record);
    EXPECT_EQ(errorOf(find(path)).code, EINVAL);
    fs::remove(record);
    (void)scratch.makeFile("data/storages/" + own + "/storage.conf");
    EXPECT_EQ(errorOf(find(path)).code, EILSEQ) << "empty";
    fs::rename(scratch / "kept", record);
    EXPECT_EQ(find(path).value(), own);
}

TEST_F(StorageCatalogTest, TheStoreOfTheFormerLayoutIsTakenOver) {
    uuid = VolumeFingerprint::of(
               FileDescriptor(::open(scratch.path().c_str(), O_RDONLY | O_CLOEXEC)).get(), {})
               .uuid;
    const auto path = scratch / "storage";
    (void)storageAt(path);
    scratch.makeFile("storage/document");
    scratch.makeFile("storage/first");
    open();
    (void)identifyAll({"first"});
    const auto before = identifyAll({"document"}).front();
    service.reset();
    EXPECT_TRUE(find(makeStorage("other"))) << "it is not of that one";
    EXPECT_TRUE(fs::exists(scratch / "data/volume.db"));
    ASSERT_TRUE(find(path));
    EXPECT_FALSE(fs::exists(scratch / "data/volume.db"));
    open();
    EXPECT_EQ(identifyAll({"document"}).front().documentID, before.documentID);
    EXPECT_EQ(service->statistics().lastTrouble, std::nullopt);
}

}  // namespace
}  // namespace platform

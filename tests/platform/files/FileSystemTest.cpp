#include "platform/files/FileSystem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <thread>

#include "platform/files/Folder.h"
#include "platform/tree/TreeLayout.h"
#include "tests/support/ScratchFolder.h"

namespace platform {
namespace {

class FileSystemTest : public testing::Test {
  protected:
    [[nodiscard]] QSURL url(const std::string& below) const {
        return QSURL::fileURLWithPath(std::string(presentedStoragePath) + "/" + below);
    }
    static std::int64_t codeOf(const auto& result) { return result ? 0 : result.error().code; }

    tests::ScratchFolder scratch;
    std::filesystem::path storage = scratch.makeFolder("elsewhere/Dokumente");
    std::unique_ptr<FileSystem> files = FileSystem::open(storage.string()).value();
};

TEST_F(FileSystemTest, PresentsTheStorageUnderOneNameAndNativePathsToPeople) {
    scratch.makeFile("elsewhere/Dokumente/a/b.txt");
    std::filesystem::create_symlink(storage, scratch / "link");
    files = FileSystem::open((scratch / "link").string()).value();
    EXPECT_EQ(files->nativePath(files->storageURL()), storage);
    EXPECT_EQ(files->nativePath(url("a/b.txt")), storage / "a/b.txt");
    EXPECT_EQ(files->nativePath(QSURL::fileURLWithPath("/usr/share")), "/usr/share");
    for (const auto& spelling : {storage, scratch / "link", scratch / "elsewhere/./Dokumente"}) {
        EXPECT_EQ(files->URLForNativePath((spelling / "a/b.txt").string()), url("a/b.txt"));
        EXPECT_EQ(files->URLForNativePath(spelling.string()), files->storageURL());
    }
    EXPECT_EQ(files->URLForNativePath((scratch / "elsewhere").string()).path(),
              scratch / "elsewhere");
    EXPECT_EQ(files->attributes(QSURL::fileURLWithPath("/private/var")).value()->identity,
              files->freshAttributes(files->storageURL()).value()->identity);
}

TEST_F(FileSystemTest, ARootIsOpenOnlyWhileItIsUsed) {
    scratch.makeFile("elsewhere/Dokumente/a");
    const auto isOpen = [&] {
        std::error_code closed;
        return std::ranges::any_of(
            std::filesystem::directory_iterator("/proc/self/fd"), [&](const auto& entry) {
                return std::filesystem::read_symlink(entry.path(), closed) == storage;
            });
    };
    EXPECT_TRUE(files->closeIdleRoots(std::chrono::hours(1)));
    EXPECT_TRUE(isOpen());
    EXPECT_FALSE(files->closeIdleRoots({}));
    EXPECT_FALSE(isOpen());
    EXPECT_TRUE(files->freshAttributes(url("a")));
    EXPECT_FALSE(files->closeIdleRoots({}));
    const auto aside = scratch / "aside";
    std::filesystem::rename(storage, aside);
    EXPECT_EQ(codeOf(files->freshAttributes(url("a"))), ENOENT);
    scratch.makeFile("elsewhere/Dokumente/a");
    EXPECT_EQ(codeOf(files->freshAttributes(url("a"))), ENOENT) << "of another storage";
    EXPECT_EQ(codeOf(files->checkStorage()), ENOENT);
    std::filesystem::remove_all(storage);
    std::filesystem::rename(aside, storage);
    EXPECT_TRUE(files->freshAttributes(url("a")));
    EXPECT_TRUE(files->checkStorage());
}

TEST_F(FileSystemTest, NothingLeadsOutOfTheRoot) {
    scratch.makeFile("elsewhere/secret");
    std::filesystem::create_directory_symlink(scratch / "elsewhere", storage / "out");
    std::filesystem::create_symlink(scratch / "elsewhere/secret", storage / "file");
    EXPECT_EQ(codeOf(files->attributes(url("out/secret"))), ENOTDIR);
    EXPECT_EQ(codeOf(files->attributes(url("../secret"))), EXDEV);
    EXPECT_EQ(codeOf(files->openObject(url("file"), O_RDONLY)), ELOOP);
    EXPECT_EQ(codeOf(files->openFolder(url("out"))), ENOTDIR);
    EXPECT_EQ(files->attributes(url("file")).value()->kind(), ObjectKind::SymbolicLink);
    EXPECT_TRUE(files->makeFolder(url("a/b")));
    EXPECT_TRUE(files->makeFolder(url("a/b")));
    EXPECT_EQ(codeOf(files->makeFolder(url("file"))), ENOTDIR);
    EXPECT_FALSE(files->makeFolder(url("out/new")));
    EXPECT_FALSE(std::filesystem::exists(scratch / "elsewhere/new"));
    // Nor is what would block waited for.
    ASSERT_EQ(mkfifo((storage / "fifo").c_str(), 0600), 0);
    EXPECT_TRUE(files->openObject(url("fifo"), O_RDONLY));
    EXPECT_EQ(files->attributes(url("fifo")).value()->kind(), ObjectKind::Other);
    EXPECT_EQ(codeOf(files->openFolder(url("fifo"))), ENOTDIR);
    // A native path is followed up to its last component, as everywhere else.
    EXPECT_EQ(
        codeOf(files->openObject(QSURL::fileURLWithPath((scratch / "nothing").string()), O_RDONLY)),
        ENOENT);
}

TEST_F(FileSystemTest, FoldersThatArePassedOverAreNotPartOfTheTree) {
    scratch.makeFile("elsewhere/Dokumente/own/below/store");
    files->passOver(std::array{(storage / "own").string()});
    const auto top = files->openFolder(files->storageURL()).value();
    EXPECT_EQ(codeOf(top->childState("own")), EXDEV);
    EXPECT_EQ(codeOf(top->childAttributes("own")), EXDEV);
    EXPECT_EQ(codeOf(top->openChild("own")), EXDEV);
    EXPECT_EQ(codeOf(files->openObject(url("own/below/store"), O_RDONLY)), ENOENT);
}

TEST_F(FileSystemTest, AccessIsWhatTheKernelSays) {
    const auto path = scratch.makeFile("elsewhere/Dokumente/a");
    scratch.makeFolder("elsewhere/Dokumente/d");
    for (unsigned mode = 0; mode < 01000; mode += 7) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        ASSERT_EQ(chmod((storage / "d").c_str(), mode), 0);
        for (const auto* name : {"a", "d"}) {
            const auto attributes = files->attributes(url(name)).value();
            const auto native = storage / name;
            EXPECT_EQ(attributes->isWritable,
                      faccessat(AT_FDCWD, native.c_str(), W_OK, AT_EACCESS) == 0);
            EXPECT_EQ(attributes->isReadable,
                      faccessat(AT_FDCWD, native.c_str(), R_OK, AT_EACCESS) == 0);
        }
    }
    chmod((storage / "d").c_str(), 0700);
}

TEST_F(FileSystemTest, WhatGoesWhileItIsReadGetsNoOtherIdentity) {
    const auto path = scratch.makeFile("elsewhere/Dokumente/a");
    const bool isWeak = files->attributes(url("a")).value()->identityIsWeak;
    const std::jthread other([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::filesystem::remove(path);
            scratch.makeFile("elsewhere/Dokumente/a");
        }
    });
    for (int i = 0; i < 50'000; ++i) {
        const auto attributes = files->freshAttributes(url("a"));
        ASSERT_EQ(attributes ? (*attributes)->identityIsWeak : isWeak, isWeak);
    }
}

}  // namespace
}  // namespace platform

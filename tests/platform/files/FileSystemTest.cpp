#include "platform/files/FileSystem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <thread>

#include "platform/files/ExtendedAttributes.h"
#include "platform/files/Folder.h"
#include "tests/support/ScratchFolder.h"

namespace platform {
namespace {

class FileSystemTest : public testing::Test {
  protected:
    FileSystemTest() {
        scratch.makeFolder("elsewhere/Dokumente");
        storage = scratch / "elsewhere/Dokumente";
        reopen(storage);
    }
    void reopen(const std::filesystem::path& path) {
        files = FileSystem::open(path.string()).value();
    }
    [[nodiscard]] QSURL url(const std::string& below) const {
        return QSURL::fileURLWithPath(std::string(presentedStoragePath) + "/" + below);
    }
    static std::int64_t codeOf(const auto& result) { return result ? 0 : result.error().code; }

    tests::ScratchFolder scratch;
    std::filesystem::path storage;
    std::unique_ptr<FileSystem> files;
};

TEST_F(FileSystemTest, PresentsTheStorageUnderOneNameAndNativePathsToPeople) {
    scratch.makeFile("elsewhere/Dokumente/a/b.txt");
    std::filesystem::create_symlink(storage, scratch / "link");
    reopen(scratch / "link");
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

TEST_F(FileSystemTest, NothingLeadsOutOfTheRoot) {
    scratch.makeFile("elsewhere/secret");
    std::filesystem::create_directory_symlink(scratch / "elsewhere", storage / "out");
    std::filesystem::create_symlink(scratch / "elsewhere/secret", storage / "file");
    EXPECT_EQ(codeOf(files->attributes(url("out/secret"))), ENOTDIR);
    EXPECT_EQ(codeOf(files->attributes(url("../secret"))), EXDEV);
    EXPECT_EQ(codeOf(files->openObject(url("file"), O_RDONLY)), ELOOP);
    EXPECT_EQ(codeOf(files->openFolder(url("out"))), ENOTDIR);
    EXPECT_EQ(files->attributes(url("file")).value()->kind(), ObjectKind::SymbolicLink);
    // A native path is followed up to its last component, as everywhere else.
    EXPECT_EQ(
        codeOf(files->openObject(QSURL::fileURLWithPath((scratch / "nothing").string()), O_RDONLY)),
        ENOENT);
}

TEST_F(FileSystemTest, ParentSwappedForALinkLeadsNowhere) {
    scratch.makeFile("elsewhere/secrets/x", "outside");
    scratch.makeFile("elsewhere/Dokumente/inside/x", "in");
    const auto link = storage / "link";
    const auto inside = storage / "inside";
    std::filesystem::create_directory_symlink(scratch / "elsewhere/secrets", link);
    std::atomic<bool> isDone = false;
    std::thread swapper([&] {
        while (!isDone) {
            renameat2(AT_FDCWD, inside.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
        }
    });
    const auto outside = std::filesystem::path(scratch / "elsewhere/secrets/x");
    struct stat secret {};
    ASSERT_EQ(stat(outside.c_str(), &secret), 0);
    int opened = 0;
    for (int i = 0; i < 20'000; ++i) {
        const auto fd = files->openObject(url("inside/x"), O_RDONLY);
        if (!fd) continue;
        struct stat status {};
        fstat(fd->get(), &status);
        ASSERT_NE(status.st_ino, secret.st_ino);
        ++opened;
    }
    isDone = true;
    swapper.join();
    EXPECT_GT(opened, 0);
}

TEST_F(FileSystemTest, SpecialFilesNeverBlock) {
    ASSERT_EQ(mkfifo((storage / "fifo").c_str(), 0600), 0);
    EXPECT_TRUE(files->openObject(url("fifo"), O_RDONLY));
    EXPECT_EQ(files->attributes(url("fifo")).value()->kind(), ObjectKind::Other);
    EXPECT_EQ(codeOf(files->openFolder(url("fifo"))), ENOTDIR);
}

TEST_F(FileSystemTest, AttributesAreThoseOfTheObjectAndKeptByTheURL) {
    const auto path = scratch.makeFile("elsewhere/Dokumente/a", "12345");
    const auto a = url("a");
    const auto first = files->attributes(a).value();
    struct stat status {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(first->identity.inode, status.st_ino);
    EXPECT_EQ(first->size, 5u);
    EXPECT_EQ(first->modification.nanoseconds, status.st_mtim.tv_nsec);
    EXPECT_NE(first->identity.generation, 0u);
    EXPECT_NE(first->device, 0u);
    scratch.makeFile("elsewhere/Dokumente/a", "123456789");
    EXPECT_EQ(files->attributes(a).value()->size, 5u);
    EXPECT_EQ(files->freshAttributes(a).value()->size, 9u);
    EXPECT_EQ(files->attributes(url("a")).value()->size, 9u);
    EXPECT_EQ(codeOf(files->attributes(url("missing"))), ENOENT);
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

TEST_F(FileSystemTest, ExtendedAttributesReadWriteAndAbsence) {
    const auto path = scratch.makeFile("elsewhere/Dokumente/a");
    std::filesystem::create_symlink("a", storage / "link");
    const FileDescriptor fd(open(path.c_str(), O_RDWR));
    const auto kept = url("a");
    ASSERT_TRUE(files->attributes(kept));
    EXPECT_EQ(removeExtendedAttribute(fd.get(), "com.quenby.x"), -1);
    EXPECT_EQ(errno, ENODATA);
    const QSData value = {1, 0, 255};
    ASSERT_EQ(setExtendedAttribute(fd.get(), "com.quenby.x", value), 0);
    ASSERT_EQ(setExtendedAttribute(fd.get(), "com.quenby.empty", {}), 0);
    EXPECT_EQ(files->extendedAttribute(url("a"), "com.quenby.x"), value);
    EXPECT_EQ(files->extendedAttribute(url("a"), "com.quenby.empty"), QSData());
    EXPECT_EQ(files->extendedAttribute(url("a"), "com.quenby.y"), std::nullopt);
    EXPECT_EQ(files->extendedAttribute(url("link"), "com.quenby.x"), std::nullopt);
    EXPECT_EQ(codeOf(files->extendedAttribute(url("gone"), "com.quenby.x")), ENOENT);
    EXPECT_EQ(files->extendedAttribute(kept, "com.quenby.x"), std::nullopt)
        << "a URL answers for the moment when its attributes were read";
    EXPECT_TRUE(files->attributes(url("a")).value()->hasAttribute("user.com.quenby.x"));
    EXPECT_EQ(setExtendedAttribute(fd.get(), "com.quenby.x", QSData(200'000)), -1);
    EXPECT_EQ(errno, E2BIG);
}

TEST_F(FileSystemTest, FolderReadsEveryEntryOnceAndCanPutOneBack) {
    std::set<std::string> expected;
    for (int i = 0; i < 3'000; ++i) {
        const auto name = "entry with a long name to fill buffers " + std::to_string(i);
        expected.insert(name);
        scratch.makeFile("elsewhere/Dokumente/" + name);
    }
    auto folder = files->openFolder(files->storageURL()).value();
    std::set<std::string> seen;
    for (int i = 0;; ++i) {
        const auto entry = folder->next().value();
        if (!entry) break;
        if (i % 3 == 0) {
            const std::string name(entry->name);
            folder->unread();
            EXPECT_EQ(folder->next().value()->name, name);
        }
        EXPECT_TRUE(seen.emplace(entry->name).second);
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(FileSystemTest, MakesFoldersBeneathTheRootOnly) {
    EXPECT_TRUE(files->makeFolder(url("a/b/c")));
    EXPECT_TRUE(files->makeFolder(url("a/b/c")));
    EXPECT_TRUE(std::filesystem::is_directory(storage / "a/b/c"));
    scratch.makeFile("elsewhere/Dokumente/file");
    EXPECT_EQ(codeOf(files->makeFolder(url("file"))), ENOTDIR);
    std::filesystem::create_directory_symlink(scratch.path(), storage / "out");
    EXPECT_FALSE(files->makeFolder(url("out/new")));
    EXPECT_FALSE(std::filesystem::exists(scratch / "new"));
}

}  // namespace
}  // namespace platform

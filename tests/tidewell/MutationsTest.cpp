#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <fstream>
#include <functional>

#include "platform/fileprovider/MutableTree.h"
#include "platform/files/ItemNames.h"
#include "tests/support/FullDisk.h"
#include "tests/tidewell/MutationsFixture.h"

namespace {

bool kernelCopiesNothing = false;  // as some file systems have it, with data left
struct Renames {
    bool isApart = false;  ///< no rename leads from one folder to another
    std::function<void()> beforeCopyIsNamed;
} renames;

}  // namespace

/// The product's calls come here.
extern "C" ssize_t copy_file_range(int from, off_t* begin, int to, off_t* at, std::size_t size,
                                   unsigned flags) {
    if (kernelCopiesNothing) return 0;
    return syscall(SYS_copy_file_range, from, begin, to, at, size, flags);
}

extern "C" int renameat2(int from, const char* name, int to, const char* target,
                         unsigned flags) noexcept {
    if (renames.isApart && from != to) {
        errno = EXDEV;
        return -1;
    }
    const bool isCopy = std::string_view(name).starts_with(".tidewell-") && target[0] != '.';
    if (isCopy && renames.beforeCopyIsNamed) std::exchange(renames.beforeCopyIsNamed, {})();
    return static_cast<int>(syscall(SYS_renameat2, from, name, to, target, flags));
}

namespace tidewell {
namespace {

using namespace std::string_literals;
using testing::Pair;
using tests::codeOf;
using tests::contentOf;
using tests::pathsBelow;
namespace fs = std::filesystem;

const std::string root(QSFileProviderRootContainerItemIdentifier);

using MutationsTest = tests::MutationsFixture;

TEST_F(MutationsTest, FailuresNameWhatTheyAreAboutAndChangeNothing) {
    (void)file("in/a");
    (void)file("in/b");
    const auto in = id("in");
    const auto a = id("in/a");
    const std::string longest(255, 'n');
    const auto before = pathsBelow(scratch.path());
    EXPECT_EQ(move("did=9999", in).error(), QPItemNotFoundError("did=9999"));
    EXPECT_EQ(move(a, "fid=9999").error(), QPItemNotFoundError("fid=9999"));
    for (const auto& taken : {rename(a, "b"), move(a, in, "b")}) {
        EXPECT_EQ(
            taken.error().userInfo.at(std::string(QSFileProviderErrorCollidingItemIdentifierKey)),
            id("in/b"));
    }
    for (const auto& name :
         {""s, "."s, ".."s, "../x"s, "/x"s, "a\0b"s, ".tidewell-x"s, longest + "n"}) {
        const int code = name.size() > longest.size() ? ENAMETOOLONG : EINVAL;
        for (const auto& result : {create(name, in), rename(a, name), move(a, in, name)}) {
            EXPECT_THAT(codeOf(result), Pair(QSPOSIXErrorDomain, code)) << name;
        }
    }
    EXPECT_EQ(pathsBelow(scratch.path()), before);
    for (const std::string name :
         {"\xff\xfe", "line\nfeed", "\u202Etxt.exe", " x ", "...", "\"", longest.c_str()}) {
        EXPECT_EQ(create(name, in).value()->filename(), name);
    }
}

TEST_F(MutationsTest, WhatIsFoundIsWhatWasAskedFor) {
    (void)folder("in/sub");
    const auto sub = id("in/sub");
    EXPECT_EQ(place(sub + "junk"), url("in/sub")) << "as numbers of identifiers are read";
    // A folder that becomes a package is another item.
    fs::rename(storage() / "in/sub", storage() / "in/sub.quire");
    EXPECT_EQ(place(sub), url("missing"));
    EXPECT_EQ(remove(sub), QPItemNotFoundError(sub));
    EXPECT_EQ(logged(LogLevel::Error, "where \"" + sub + "\" was asked for").size(), 2U);
    EXPECT_TRUE(fs::exists(storage() / "in/sub.quire"));
}

TEST_F(MutationsTest, AFolderThatTookThePlaceOfTheDestinationStaysEmpty) {
    (void)folder("in/sub");
    (void)file("doc");
    const auto sub = url("in/sub");
    ASSERT_TRUE(installed->files().attributes(sub));
    fs::rename(storage() / "in/sub", storage() / "in/other");
    (void)folder("in/sub");
    const auto doc = url("doc");
    const auto source = url("in/other");
    for (const auto& start : std::initializer_list<std::function<void(qp_URLHandler)>>{
             [&](qp_URLHandler h) { qp_createSubFolder(sub, "new", std::move(h)); },
             [&](qp_URLHandler h) { qp_importUnderFolder(source, sub, std::move(h)); },
             [&](qp_URLHandler h) { qp_reparentUnderFolder(doc, sub, true, std::move(h)); }}) {
        std::promise<Result<QSURL>> done;
        start([&](Result<QSURL> made) { done.set_value(std::move(made)); });
        const auto error = done.get_future().get().error();
        EXPECT_EQ(error.code, QPItemNotFoundErrorCode);
        EXPECT_TRUE(error.userInfo.contains(qp_isDestinationKey));
    }
    EXPECT_TRUE(fs::is_empty(storage() / "in/sub"));
}

TEST_F(MutationsTest, FreeNamesAreNumberedAndFit) {
    EXPECT_EQ(numberedName("a.txt", 2), "a 2.txt");
    EXPECT_EQ(numberedName("v1.2", 2), "v1.2 2");
    EXPECT_EQ(numberedName(".hidden", 2), ".hidden 2");
    std::string umlauts;
    while (umlauts.size() < 250) umlauts += "ä";
    EXPECT_EQ(numberedName(umlauts + ".txt", 12), umlauts.substr(0, 248) + " 12.txt");

    (void)file("in/doc.txt");
    EXPECT_EQ(import(scratch.makeFile("source/doc.txt", "new"), id("in")).value()->filename(),
              "doc 2.txt");
    (void)file("doc.txt");
    EXPECT_EQ(move(id("doc.txt"), id("in")).value()->filename(), "doc 3.txt");
    EXPECT_EQ(contentOf(storage() / "in/doc.txt"), "x");
}

TEST_F(MutationsTest, NothingSucceedsWhatIsRemovedOrTrashed) {
    const auto source = scratch.makeFile("source/doc");
    (void)file("in/doc");
    const auto removed = id("in/doc");
    EXPECT_FALSE(remove(removed));
    const auto imported = import(source, id("in")).value()->itemIdentifier();
    EXPECT_EQ(place(imported), url("in/doc"));
    EXPECT_NE(imported, removed);
    EXPECT_EQ(trash(imported).value()->itemIdentifier(), imported);
    EXPECT_FALSE(remove(imported));
    (void)file("in/doc");
    const auto created = id("in/doc");
    EXPECT_THAT((std::set{removed, imported}), testing::Not(testing::Contains(created)));
    EXPECT_FALSE(remove(created));
    (void)file("in/sedAbCdEf");  // a name of those that programs put a document aside under
    const auto temporary = id("in/sedAbCdEf");
    end();
    installed.reset();
    (void)file("in/doc");
    fs::rename(storage() / "in/sedAbCdEf", storage() / ".Trash/sedAbCdEf");
    (void)file("in/sedAbCdEf");
    restart();
    start();
    EXPECT_NE(id("in/doc"), created);
    EXPECT_NE(id("in/sedAbCdEf"), temporary);
    EXPECT_EQ(id(".Trash/sedAbCdEf"), temporary);
}

TEST_F(MutationsTest, ProtectedPlacesStay) {
    const auto refused = Pair(QSMochaErrorDomain, 513);
    (void)provider->itemForIdentifier(
        std::string(QSFileProviderTemporaryLocalFolderItemIdentifier));
    (void)file(".Trash/x");
    for (const auto& identifier : {root, std::string("#org.a"), id(".Trash"),
                                   std::string(QSFileProviderTemporaryLocalFolderItemIdentifier)}) {
        EXPECT_THAT(codeOf(rename(identifier, "x")), refused) << identifier;
        EXPECT_THAT(codeOf(move(identifier, id("in"))), refused) << identifier;
        EXPECT_THAT(codeOf(trash(identifier)), refused) << identifier;
        EXPECT_THAT(codeOf(remove(identifier).value()), refused) << identifier;
    }
    (void)folder("in/sub");
    EXPECT_THAT(codeOf(move(id("in"), id("in/sub"))), Pair(QSPOSIXErrorDomain, EINVAL));
    EXPECT_THAT(codeOf(import(storage() / "in", id("in/sub"))), Pair(QSPOSIXErrorDomain, EINVAL));
}

TEST_F(MutationsTest, AnImportIsAWholeCopy) {
    const auto source = scratch.makeFolder("source/tree");
    scratch.makeFile("source/tree/a/b/file", std::string(100'000, 'z'));
    scratch.makeFile("source/tree/empty", "");
    fs::create_symlink("/etc/passwd", source / "a/link");
    fs::create_symlink("nowhere", source / "dangling");
    mkfifo((source / "a/fifo").c_str(), 0600);
    chmod((source / "a/b/file").c_str(), 04751);
    chmod((source / "a").c_str(), 0750);
    {  // a hole, data, and a hole
        std::ofstream sparse(source / "sparse", std::ios::binary);
        sparse.seekp(512 << 10) << "data";
    }
    fs::resize_file(source / "sparse", 1 << 20);
    for (const auto* path : {"a/b/file", "a/b", "a"}) {
        const std::array times{timespec{1000, 5}, timespec{2000, 7}};
        setxattr((source / path).c_str(), "user.tag", "red", 3, 0);
        setxattr((source / path).c_str(), "user.com.quenby.tidewell.witness", "own", 3, 0);
        utimensat(AT_FDCWD, (source / path).c_str(), times.data(), 0);
    }
    ASSERT_TRUE(import(source, id("in")));
    const auto copy = storage() / "in/tree";
    auto expected = pathsBelow(source);
    expected.erase("a/fifo");
    EXPECT_EQ(pathsBelow(copy), expected);
    EXPECT_EQ(contentOf(copy / "a/b/file"), contentOf(source / "a/b/file"));
    EXPECT_EQ(contentOf(copy / "sparse"), contentOf(source / "sparse"));
    EXPECT_EQ(fs::read_symlink(copy / "a/link"), "/etc/passwd");
    struct stat status {};
    stat((copy / "sparse").c_str(), &status);
    EXPECT_LT(status.st_blocks, 512);
    for (const auto& [path, mode] : {std::pair{"a/b/file", 0751U}, std::pair{"a", 0750U}}) {
        stat((copy / path).c_str(), &status);
        EXPECT_EQ(status.st_mode & 07777U, mode) << path;
        EXPECT_EQ(status.st_mtim.tv_sec, 2000) << path;
        char value[8] = {};
        EXPECT_GT(getxattr((copy / path).c_str(), "user.tag", value, sizeof value), 0) << path;
        EXPECT_LT(getxattr((copy / path).c_str(), "user.com.quenby.tidewell.witness", nullptr, 0),
                  0);
    }
    kernelCopiesNothing = true;
    for (const auto* name : {"a/b/file", "sparse"}) {
        EXPECT_TRUE(import(source / name, id("in")));
        const auto whole = storage() / "in" / fs::path(name).filename();
        EXPECT_TRUE(contentOf(whole) == contentOf(source / name)) << name;
    }
    kernelCopiesNothing = false;
    // Of no size, as stat has it.
    EXPECT_GT(import("/proc/sys/kernel/ostype", id("in")).value()->documentSize(), 0U);
    const auto refused = import(source / "a/fifo", id("in"));
    EXPECT_EQ(refused.error().userInfo.at(std::string(QSFilePathErrorKey)), source / "a/fifo");
    EXPECT_TRUE(fs::is_empty(installed->folders().state + "/unfinished"));
}

TEST_F(MutationsTest, ACancelledOperationLeavesNothingAndTakesNothing) {
    scratch.makeFile("source/a/b");
    const MutableTree tree(installed->files(), installed->unfinished(), installed->volume());
    QSProgress progress;
    progress.cancel();
    const auto source = QSURL::fileURLWithPath((scratch / "source").string());
    EXPECT_THAT(codeOf(tree.import(source, url("in"), progress)),
                Pair(QSPOSIXErrorDomain, ECANCELED));
    EXPECT_TRUE(fs::is_empty(storage() / "in"));
    ASSERT_TRUE(import(scratch / "source", id("in")));
    EXPECT_THAT(codeOf(tree.remove(url("in/source"), progress)),
                Pair(QSPOSIXErrorDomain, ECANCELED));
    EXPECT_EQ(pathsBelow(storage() / "in"),
              (std::set<std::string>{"source", "source/a", "source/a/b"}));
    EXPECT_TRUE(fs::is_empty(installed->folders().state + "/unfinished"));
}

TEST_F(MutationsTest, AnOriginalThatChangesWhileItIsCopiedStays) {
    const auto doc = storage() / "in/doc";
    (void)folder("apart");
    for (const bool isByName : {false, true}) {
        SCOPED_TRACE(isByName);
        std::ofstream(doc) << "old";
        std::ofstream writer(doc, std::ios::app);
        renames.isApart = true;
        renames.beforeCopyIsNamed = [&] {
            EXPECT_FALSE(fs::exists(doc));
            if (isByName) writer = std::ofstream(doc);
            writer << "new" << std::flush;
        };
        const auto moved = move(id("in/doc"), id("apart"));
        renames = {};
        EXPECT_EQ(codeOf(moved).second, isByName ? 0 : EBUSY);
        EXPECT_EQ(contentOf(doc), isByName ? "new" : "oldnew");
        EXPECT_EQ(fs::exists(storage() / "apart/doc"), isByName);
    }
    EXPECT_EQ(contentOf(storage() / "apart/doc"), "old");
    EXPECT_TRUE(fs::is_empty(installed->folders().state + "/unfinished"));
}

/// Some file systems rename nothing into a folder of another project.
TEST_F(MutationsTest, WhatCannotBeRenamedIsCopiedAndRemoved) {
    const FileDescriptor apart(open(folder("apart").c_str(), O_RDONLY | O_DIRECTORY));
    fsxattr project{};
    project.fsx_xflags = FS_XFLAG_PROJINHERIT;
    project.fsx_projid = 77;
    renames.isApart = ioctl(apart.get(), FS_IOC_FSSETXATTR, &project) != 0;
    const auto tree = file("in/tree/below").parent_path();

    const MutableTree moves(installed->files(), installed->unfinished(), installed->volume());
    QSProgress progress;
    const auto whole = pathsBelow(storage() / "in");
    mkfifo((tree / "fifo").c_str(), 0600);
    EXPECT_THAT(codeOf(move(id("in/tree"), id("apart"))), Pair(QSPOSIXErrorDomain, ENOTSUP));
    fs::remove(tree / "fifo");
    progress.cancel();
    EXPECT_THAT(
        codeOf(moves.move(url("in/tree"), url("apart"), {}, MutableTree::Naming::Free, progress)),
        Pair(QSPOSIXErrorDomain, ECANCELED));
    EXPECT_TRUE(fs::is_empty(storage() / "apart"));
    EXPECT_EQ(pathsBelow(storage() / "in"), whole);

    const auto item = id("in/tree");
    const auto moved = move(item, id("apart"));
    ASSERT_TRUE(moved) << moved.error().description();
    EXPECT_NE((*moved)->itemIdentifier(), item);
    EXPECT_TRUE(fs::is_empty(storage() / "in"));
    EXPECT_TRUE(trash((*moved)->itemIdentifier()).value()->isTrashed());
    renames = {};
    EXPECT_TRUE(fs::is_empty(installed->folders().state + "/unfinished"));
}

/// What was meant itself is swept by killing the command.
TEST_F(MutationsTest, AFolderThatIsRenamedDuringTheWorkIsFoundByItsIdentity) {
    const auto source = scratch.makeFile("source");
    const auto in = id("in");
    const fs::path records = installed->folders().state + "/unfinished";
    fs::path record, target, hidden;
    renames.beforeCopyIsNamed = [&] {
        record = *fs::directory_iterator(records);
        target = fs::read_symlink(record);
        for (const auto& entry : fs::directory_iterator(storage() / "in")) hidden = entry.path();
        fs::rename(storage() / "in", storage() / "renamed");
    };
    const auto imported = import(source, in);
    ASSERT_TRUE(imported) << imported.error().description();
    EXPECT_EQ(place((*imported)->itemIdentifier()), url("renamed/source"));
    // As if the process had been killed before the copy had its name.
    end();
    fs::rename(storage() / "renamed/source", storage() / "renamed" / hidden.filename());
    fs::create_symlink(target, record);
    restart();
    start();
    end();
    installed.reset();  // waits for work that has begun
    EXPECT_TRUE(fs::is_empty(storage() / "renamed"));
    EXPECT_TRUE(fs::is_empty(records));
}

TEST_F(MutationsTest, AFullDiskTakesNothingBack) {
    (void)file("in/doc");
    (void)file("in/other");
    const auto doc = id("in/doc");
    const auto to = id(folder("to").filename());
    ASSERT_NE(id("in/other"), id("in"));
    ASSERT_TRUE(installed->volume().waitUntilSeen());
    {
        const tests::FullDisk full;
        const auto renamed = rename(doc, "new");
        EXPECT_TRUE(renamed) << renamed.error().description();
        EXPECT_TRUE(fs::exists(storage() / "in/new"));
        EXPECT_EQ((*renamed)->itemIdentifier(), doc);
        EXPECT_EQ(id("in/new"), doc);
        EXPECT_TRUE(move(id("in/other"), to));
    }
}

TEST_F(MutationsTest, NoPathIsTooLong) {
    FileDescriptor folder(open(storage().c_str(), O_RDONLY | O_DIRECTORY));
    std::string below;
    for (int depth = 0; depth < 20; ++depth) {
        below += std::string(250, 'd') + "/";
        ASSERT_EQ(mkdirat(folder.get(), below.c_str() + below.size() - 251, 0777), 0);
        folder.reset(openat(folder.get(), below.c_str() + below.size() - 251, O_DIRECTORY));
    }
    const auto imported = import(scratch.makeFile("source"), id(below));
    ASSERT_TRUE(imported) << imported.error().description();
    EXPECT_EQ(faccessat(folder.get(), "source", F_OK, 0), 0);
    EXPECT_EQ(remove((*imported)->itemIdentifier()), std::nullopt);
    EXPECT_NE(faccessat(folder.get(), "source", F_OK, 0), 0);
}

TEST_F(MutationsTest, AStrangerThatAKilledProcessSetAsideGoesBack) {
    (void)file("in/taken");
    const auto meant = installed->files().freshAttributes(url("in/taken")).value()->identity;
    const auto hidden = ".tidewell-" + std::string(20, 's');
    fs::create_directory(storage() / "in" / hidden);
    const fs::path records = installed->folders().state + "/unfinished";
    fs::create_directories(records);
    char name[128];
    std::snprintf(name, sizeof name, "r.%lx.%lx.%s", meant.inode, meant.generation,
                  hidden.substr(10).c_str());
    fs::create_symlink(url("in/taken").path(), records / name);
    fs::create_symlink(url("in/taken").path(), records / "not a record");
    end();
    restart();
    start();
    end();
    installed.reset();  // waits for work that has begun
    EXPECT_EQ(pathsBelow(storage() / "in"), (std::set<std::string>{"taken", "taken 2"}));
    EXPECT_THAT(pathsBelow(records), testing::ElementsAre("not a record"));
}

}  // namespace
}  // namespace tidewell

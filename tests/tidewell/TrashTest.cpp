#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "platform/fileprovider/ObjectNames.h"
#include "platform/foundation/QSKeyedArchiver.h"
#include "platform/foundation/QSKeyedUnarchiver.h"
#include "tests/support/Await.h"
#include "tests/support/FullDisk.h"
#include "tests/tidewell/MutationsFixture.h"
#include "tidewell/provider/TrashRecords.h"

namespace tidewell {
namespace {

using testing::Pair;
using tests::codeOf;
using tests::contentOf;
using tests::pathsBelow;
namespace fs = std::filesystem;

class TrashTest : public tests::MutationsFixture {
  protected:
    static std::optional<QSPropertyList> attribute(const fs::path& path, const std::string& name) {
        QSData bytes(4096);
        const auto size =
            lgetxattr(path.c_str(), ("user." + name).c_str(), bytes.data(), bytes.size());
        if (size < 0) return std::nullopt;
        bytes.resize(static_cast<std::size_t>(size));
        auto root = unarchivedObjectOfClasses({ArchiveClass::Date, ArchiveClass::String}, bytes);
        return root ? std::optional(*root) : std::nullopt;
    }
    static void setAttribute(const fs::path& path, const std::string& name, const QSData& bytes) {
        const auto stored = "user." + name;
        ASSERT_EQ(setxattr(path.c_str(), stored.c_str(), bytes.data(), bytes.size(), 0), 0);
    }
    static QSData archived(const QSPropertyList& root) {
        return archivedDataWithRootObject(root).value();
    }

    const std::string date = "com.quenby.trash.time#PS";
    const std::string putBack = "com.quenby.trash.putback#PS";
};

TEST_F(TrashTest, RecordsWhenAndFromWhereAndPutsBack) {
    scratch.makeFile("containers/org.a/Documents/a/b/doc.txt", "mine");
    const auto identifier = libraryID("a/b/doc.txt");
    const auto before = QSDate::now();
    EXPECT_TRUE(trash(identifier).value()->isTrashed());
    const auto place = library() / ".Trash/doc.txt";
    EXPECT_EQ(*attribute(place, putBack).value().asString(), "a/b/doc.txt");
    const auto when = *attribute(place, date).value().asDate();
    EXPECT_NEAR(static_cast<double>(when.seconds), static_cast<double>(before.seconds), 60);
    setAttribute(place, date, archived(QSDate{1, 0}));
    EXPECT_TRUE(trash(identifier));  // again: it keeps its record, and has its full time
    EXPECT_GE(*attribute(place, date).value().asDate(), when);
    EXPECT_EQ(*attribute(place, putBack).value().asString(), "a/b/doc.txt");

    scratch.makeFile("containers/org.a/Documents/a/b/doc.txt", "another");
    const auto back = untrash(identifier).value();
    EXPECT_EQ(back->filename(), "doc 2.txt");
    EXPECT_EQ(back->itemIdentifier(), identifier);
    EXPECT_EQ(contentOf(library() / "a/b/doc 2.txt"), "mine");
    EXPECT_EQ(contentOf(library() / "a/b/doc.txt"), "another");
    EXPECT_FALSE(attribute(library() / "a/b/doc 2.txt", date));
    EXPECT_TRUE(attribute(library() / "a/b/doc 2.txt", putBack));
}

TEST_F(TrashTest, TheLedgerSaysWhatAttributesCannot) {
    auto& ledger = installed->volume().trash();
    scratch.makeFile("containers/org.a/Documents/a\xff/doc");
    scratch.makeFile("containers/org.a/Documents/a/x");
    fs::create_hard_link(library() / "a/x",
                         scratch.makeFolder("containers/org.a/Documents/b") / "y");
    fs::create_symlink("nowhere", library() / "a/link");
    const auto tomorrow = QSDate{QSDate::now().seconds + 86400, 0};
    for (const std::string below : {"a\xff/doc", "a/link"}) {
        const auto item = libraryID(below);
        ASSERT_TRUE(trash(item));
        EXPECT_EQ(provider->itemsTrashedBeforeDate(tomorrow).size(), 1U) << below;
        ASSERT_TRUE(untrash(item));
        EXPECT_EQ(place(item), libraryURL(below));
    }
    // Each name of one object has a date and a place of its own.
    for (const auto* below : {"a/x", "b/y"}) {
        const auto preferred = preferPlace(libraryURL(below));
        ASSERT_TRUE(trash(libraryID(below)));
    }
    const auto entry = libraryURL(".Trash/x");
    const auto object = installed->files().attributes(entry).value()->identity;
    EXPECT_EQ(ledger.find(entry.path(), object)->formerPath, libraryURL("a/x").path());
    ledger.put(entry.path(), object, {{1, 0}, libraryURL("a/x").path()});
    EXPECT_EQ(provider->itemsTrashedBeforeDate({2, 0}).front()->filename(), "x");
}

TEST_F(TrashTest, AnArrivalThatNobodySawIsDatedOnce) {
    scratch.makeFile("storage/in/a");
    const auto entry = storage() / ".Trash/a";
    ASSERT_TRUE(trash(id("in/a")));
    const auto dateArrivals = [&] {
        setAttribute(entry, date, archived(QSDate{1, 0}));
        EXPECT_TRUE(provider->dateArrivalsInTrash());
        return *attribute(entry, date).value().asDate();
    };
    EXPECT_EQ(dateArrivals().seconds, 1) << "it was trashed by the product";
    fs::rename(entry, storage() / "in/a");
    ASSERT_TRUE(installed->volume().waitUntilSeen());
    fs::rename(storage() / "in/a", entry);
    EXPECT_GT(dateArrivals().seconds, 1);
    EXPECT_EQ(dateArrivals().seconds, 1);
    fs::rename(storage() / ".Trash", storage() / "in/old");  // with all that is in it
    ASSERT_TRUE(installed->volume().waitUntilSeen());
    (void)folder(".Trash");
    fs::rename(storage() / "in/old/a", entry);
    EXPECT_GT(dateArrivals().seconds, 1);
}

TEST_F(TrashTest, AFullDiskIsNotReportedAsAMissingItem) {
    scratch.makeFile("storage/doc.txt");
    const auto identifier = id("doc.txt");
    const tests::FullDisk full;
    const auto trashed = trash(identifier);
    ASSERT_FALSE(trashed) << "the trash has no identifier yet";
    EXPECT_TRUE(fs::exists(storage() / "doc.txt"));
    EXPECT_EQ(codeOf(trashed).first, QSPOSIXErrorDomain);
}

TEST_F(TrashTest, AnApplicationMayBeCalledDocuments) {
    scratch.makeFile("containers/Documents/Documents/a/x");
    showLibrariesOf({"org.a", "Documents"});
    const auto item =
        provider->persistentIdentifierForItemAtURL(libraryURL("a/x", "Documents")).value();
    ASSERT_TRUE(trash(item));
    EXPECT_EQ(place(item), libraryURL(".Trash/x", "Documents"));
    ASSERT_TRUE(untrash(item));
    EXPECT_EQ(place(item), libraryURL("a/x", "Documents"));
    // What lies beside a library under a name that begins with its name is no item.
    const auto beside = scratch.makeFile("containers/org.a/Documents2/x").string();
    const auto url = installed->files().URLForNativePath(beside);
    EXPECT_EQ(provider->persistentIdentifierForItemAtURL(url), std::nullopt);
    EXPECT_EQ(installed->files().nativePath(url), beside);
}

TEST_F(TrashTest, APathThatCannotBeBuiltHasNoTrash) {
    const auto url = QSURL::fileURLWithPath(std::string_view("/a\0b/Documents/x", 15));
    EXPECT_EQ(
        trashFolderFor(url).error(),
        QPInvalidParameterError("trashComponents", std::string("a\0b, Documents, .Trash", 22)));
    EXPECT_EQ(logged(LogLevel::Error, "can't build trash URL from components \"a").size(), 1U);
}

TEST_F(TrashTest, AnItemThatCannotBePutBackGoesToTheGivenFolder) {
    (void)file("Documents/a");
    const auto item = id("Documents/a");
    ASSERT_TRUE(trash(item));
    EXPECT_EQ(place(item), url(".Trash/a")) << "the first Documents of a path has the trash";
    // From the storage: nothing says where it was, and a trashed parent is none.
    (void)file(".Trash/folder/x");
    EXPECT_EQ(untrash(item, id(".Trash/folder")).error(),
              QPInvalidParameterError("itemIdentifier", item));
    // A record from when it was an application's is not of here.
    setAttribute(storage() / ".Trash/a", putBack, archived("in/a"));
    EXPECT_EQ(untrash(item).error(), QPInvalidParameterError("itemIdentifier", item));
    EXPECT_TRUE(untrash(item, id("in")));
    EXPECT_EQ(place(item), url("in/a"));
}

TEST_F(TrashTest, AnUnsafeTrashIsRefused) {
    (void)file("in/a");
    const auto item = id("in/a");
    const auto outside = scratch.makeFolder("outside");
    fs::create_directory_symlink(outside, storage() / ".Trash");
    EXPECT_THAT(codeOf(trash(item)), Pair(QSPOSIXErrorDomain, ENOTDIR));
    fs::remove(storage() / ".Trash");
    (void)folder(".Trash");
    chmod((storage() / ".Trash").c_str(), 01777);
    EXPECT_THAT(codeOf(trash(item)), Pair(QSMochaErrorDomain, 513));
    if (geteuid() == 0) {
        chmod((storage() / ".Trash").c_str(), 0700);
        ASSERT_EQ(chown((storage() / ".Trash").c_str(), 65534, 65534), 0);
        EXPECT_THAT(codeOf(trash(item)), Pair(QSMochaErrorDomain, 513));
    }
    EXPECT_EQ(contentOf(storage() / "in/a"), "x");
    EXPECT_TRUE(fs::is_empty(outside));
}

TEST_F(TrashTest, APutBackRecordNeverLeadsOutOfTheLibrary) {
    scratch.makeFile("containers/org.a/secret", "untouched");
    scratch.makeFile("containers/org.a/Documents/file");
    scratch.makeFile("containers/org.a/Documents/.Trash/other/x");
    fs::create_directory_symlink(scratch.path(), library() / "escape");
    const auto before = pathsBelow(scratch / "containers/org.a");
    std::vector<QSData> hostile{QSData(2000, 0x61)};
    for (const auto& record : QSPropertyList::Array{
             "../../x", "/../x", "/etc/x", "missing/parent/x", "file/x", "escape/x",
             ".Trash/other/x", "", ".", std::string(1500, 'n') + "/x", QSDate::now()}) {
        hostile.push_back(archived(record));
    }
    for (const auto& record : hostile) {
        SCOPED_TRACE(stringFromData(record));
        scratch.makeFile("containers/org.a/Documents/victim", "victim");
        const auto item = libraryID("victim");
        ASSERT_TRUE(trash(item));
        setAttribute(library() / ".Trash/victim", putBack, record);
        ASSERT_TRUE(untrash(item));
        EXPECT_EQ(contentOf(library() / "victim"), "victim");
        fs::remove(library() / "victim");
        EXPECT_EQ(pathsBelow(scratch / "containers/org.a"), before);
    }
    EXPECT_EQ(contentOf(scratch / "containers/org.a/secret"), "untouched");
}

TEST_F(TrashTest, OldTrashIsRemovedAndItemsWithoutDateGetOne) {
    const QSDate reference{1'700'000'000, 0};
    for (const auto* where : {"storage", "containers/org.a/Documents"}) {
        const auto trashFolder = scratch.makeFolder(std::string(where) + "/.Trash");
        for (const auto* name :
             {"older/below", "equal", "newer", "undated", "garbage", ".hidden"}) {
            scratch.makeFile(std::string(where) + "/.Trash/" + name);
        }
        setAttribute(trashFolder / "older", date, archived(QSDate{1'699'999'999, 0}));
        setAttribute(trashFolder / ".hidden", date, archived(QSDate{1'699'999'999, 0}));
        setAttribute(trashFolder / "equal", date, archived(reference));
        setAttribute(trashFolder / "newer", date, archived(QSDate{1'700'000'001, 0}));
        setAttribute(trashFolder / "garbage", date, QSData{1, 2, 3});
    }
    const auto eligible = provider->itemsTrashedBeforeDate(reference);
    EXPECT_THAT(eligible, testing::SizeIs(2));
    EXPECT_FALSE(attribute(storage() / ".Trash/undated", date));
    std::promise<void> done;
    provider->_removeTrashedItemsOlderThanDate(reference, [&] { done.set_value(); });
    done.get_future().get();
    for (const auto& trashFolder : {storage() / ".Trash", library() / ".Trash"}) {
        EXPECT_EQ(pathsBelow(trashFolder),
                  (std::set<std::string>{"equal", "newer", "undated", "garbage", ".hidden"}));
        EXPECT_TRUE(attribute(trashFolder / "undated", date).value().asDate());
        EXPECT_TRUE(attribute(trashFolder / "garbage", date).value().asDate());
    }
}

}  // namespace
}  // namespace tidewell

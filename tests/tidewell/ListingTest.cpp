#include "platform/foundation/QSPropertyList.h"
#include "tests/tidewell/ChangesFixture.h"
#include "tidewell/enumeration/LocalRootEnumerator.h"
#include "tidewell/fs/DirectoryWalk.h"

namespace tidewell {
namespace {

using testing::SizeIs;
using testing::UnorderedElementsAre;
using tests::onePage;

WalkOptions sameOptions(std::string_view /*name*/, WalkOptions inherited) {
    return inherited;
}

class ListingTest : public tests::InstalledPlatform {
  protected:
    void fill(const std::string& below, int count) {
        for (int i = 0; i < count; ++i) (void)file(below + "/" + std::to_string(i));
    }
    /// Paths in pages of `size`, by one walk that goes on or by a fresh one for every page.
    std::vector<std::string> walked(std::uint64_t size, bool resumes, WalkOptions options,
                                    DirectoryWalk::Emits emits = DirectoryWalk::Emits::everything) {
        std::vector<std::string> paths;
        const auto make = [&] {
            return std::make_unique<DirectoryWalk>(
                std::vector<DirectoryWalk::Root>{
                    {url(), options},
                    {url("missing"), options},
                    {url(".Trash"), options | walkDescendsIntoNothing}},
                sameOptions, emits);
        };
        auto walk = make();
        for (std::uint64_t offset = 0;;) {
            if (!resumes) walk = make();
            const auto reached = walk->walk(offset, size, [&](const QSURL& found) -> Result<void> {
                EXPECT_TRUE(found.attachment());
                paths.push_back(found.path());
                return {};
            });
            if (!reached || *reached - offset != size) return paths;
            offset = *reached;
        }
    }
};

TEST_F(ListingTest, WalkGivesTheSameWhetherItGoesOnOrCounts) {
    fill("a", 30);
    fill("a/b/c", 20);
    fill("p.lutebox", 5);
    fill(".Trash/old", 5);
    fill(".hidden", 5);
    std::filesystem::create_directory_symlink("a", storage() / "link");
    const auto whole = walked(walkWithoutPageLimit, true, 3);
    EXPECT_THAT(whole, SizeIs(30 + 20 + 3 + 1 + 1 + 1)) << "a, b, c, package, link, trashed folder";
    for (const std::uint64_t size : {1u, 2u, 7u, 50u}) {
        EXPECT_EQ(walked(size, true, 3), whole) << size;
        EXPECT_EQ(walked(size, false, 3), whole) << size;
    }
    EXPECT_THAT(walked(walkWithoutPageLimit, true, 7), SizeIs(4));
    EXPECT_THAT(walked(walkWithoutPageLimit, true, 0), SizeIs(56 + 5 + 6 + 1 + 6))
        << "hidden ones and packages too, and the trash as a folder";
    EXPECT_THAT(walked(2, true, 3, DirectoryWalk::Emits::directories), SizeIs(5))
        << "folders, the package among them, in the tree and in the trash";
}

TEST_F(ListingTest, WalkEndsOnErrorsOfTheCallbackAndOfTheFirstRootOnly) {
    fill("a", 3);
    DirectoryWalk walk({{url(), 3}}, sameOptions, DirectoryWalk::Emits::everything);
    const auto stopped = walk.walk(
        0, 10, [](const QSURL&) -> Result<void> { return std::unexpected(errorFromErrno(EINTR)); });
    EXPECT_EQ(stopped.error().code, EINTR);
    DirectoryWalk missing({{url("missing"), 3}}, sameOptions, DirectoryWalk::Emits::everything);
    EXPECT_EQ(missing.walk(0, 10, {}).error().code, ENOENT);
    EXPECT_THAT(logged(LogLevel::Debug, "can't open directory at "), SizeIs(1));
    // Nor is another folder listed that came to the path of the one meant.
    const auto a = url("a");
    const ContainerCover cover("fid=" + std::to_string(fileIDOfObject(a)), {a});
    EXPECT_EQ(
        cover.makeWalk(cover.walkRoots()).walk(0, 10, [](const auto&) { return Result<void>(); }),
        3u);
    std::filesystem::rename(storage() / "a", storage() / "b");
    fill("a", 1);
    EXPECT_EQ(cover.makeWalk(cover.walkRoots()).walk(0, 10, {}).error().code, ENOENT);
}

using PageTokenTest = tests::ChangesFixture;

TEST_F(PageTokenTest, PagesThatCannotBeTrustedExpire) {
    for (int i = 0; i < 450; ++i) (void)file("d/" + std::to_string(i));
    LocalFileEnumerator enumerator("fid=1", {url("d")});
    const auto expires = [&](const QSFileProviderPage& page, const char* message) {
        log->clear();
        const auto answer = onePage(enumerator, page);
        ASSERT_TRUE(answer->error);
        EXPECT_EQ(answer->error->code, QSFileProviderErrorSyncAnchorExpired);
        EXPECT_THAT(answer->items, testing::IsEmpty());
        EXPECT_THAT(
            logged(LogLevel::Info, message).size() + logged(LogLevel::Error, message).size(), 1u)
            << message;
    };
    expires(dataFromString("garbage"), "can't create change token from anchor data, resetting");
    const auto second = *onePage(enumerator)->next;
    auto token = FSChangeToken::fromData(second).value();
    token.offset = UINT64_MAX;
    expires(token.data(), "smaller than the initial offset");
    token.deviceUUID = QSUUID::random();
    expires(token.data(), "device UUID changed (");

    const auto third = onePage(enumerator, second);
    ASSERT_TRUE(third->next);
    LocalFileEnumerator another("fid=1", {url("d")});
    EXPECT_EQ(onePage(another, second)->names(), third->names()) << "counted to, without a cursor";
    EXPECT_EQ(onePage(enumerator, second)->names(), third->names()) << "the same page again";
    scripted.append({.path = url("elsewhere/x").path()});
    scripted.append({.path = url("d2").path()});
    EXPECT_THAT(onePage(enumerator, *third->next)->items, SizeIs(50));
    scripted.append({.path = url("d/deep/new").path()});
    expires(*third->next, "requires to re-gather from scratch");
    scripted.expire(scripted.currentEventID());
    expires(second, "requires to re-gather from scratch");
    enumerator.invalidate();
    EXPECT_THAT(onePage(enumerator, dataFromString(QSFileProviderInitialPageSortedByDate))->items,
                SizeIs(200));
}

TEST_F(ListingTest, ContainersShowWhatTheyCover) {
    for (const auto* path : {"a/b/file", "Inbox/in", ".Trash/t/x", ".hidden/x", "p.lutebox/x",
                             "top", "a/Inbox/deep"}) {
        (void)file(path);
    }
    std::filesystem::create_directory_symlink("/usr", storage() / "link");
    const auto names = [&](std::string_view container) {
        const auto enumerator =
            LocalRootEnumerator::initWithContainer(std::string(container), AppLibraries::load());
        return onePage(*enumerator)->names();
    };
    EXPECT_THAT(names(QSFileProviderRootContainerItemIdentifier),
                UnorderedElementsAre("a", "p.lutebox", "top", "link"));
    EXPECT_THAT(names(QSFileProviderWorkingSetContainerItemIdentifier),
                UnorderedElementsAre("a", "b", "file", "in", "t", "p.lutebox", "top", "Inbox",
                                     "deep", "link"));
    EXPECT_THAT(names(QSFileProviderAllDirectoriesContainerItemIdentifier),
                UnorderedElementsAre("a", "b", "Inbox"));
}

TEST(FSChangeTokenTest, BytesAreTheContract) {
    const FSChangeToken token{1, QSUUID::random(), std::uint64_t{1} << 63, UINT64_MAX, 0};
    EXPECT_EQ(FSChangeToken::fromData(token.data())->description(), token.description());
    EXPECT_EQ(stringFromData(token.data()).substr(0, 8), "bplist00");
    QSPropertyList::Dictionary keys = {
        {"v", 0}, {"d", token.deviceUUID.UUIDString()}, {"s", 1}, {"o", 2}, {"a", 3}};
    keys.emplace("unknown", "ignored");
    EXPECT_TRUE(FSChangeToken::fromData(binaryData(keys).value()));
    for (const auto* key : {"v", "d", "s", "o", "a"}) {
        auto broken = keys;
        broken.erase(key);
        EXPECT_FALSE(FSChangeToken::fromData(binaryData(broken).value())) << key;
        for (const QSPropertyList& wrong : {QSPropertyList(-1), QSPropertyList("text"),
                                            QSPropertyList(1.0), QSPropertyList(true)}) {
            broken.insert_or_assign(key, wrong);
            EXPECT_FALSE(FSChangeToken::fromData(binaryData(broken).value())) << key;
        }
    }
}

}  // namespace
}  // namespace tidewell

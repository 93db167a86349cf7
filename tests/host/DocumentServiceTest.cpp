#include "host/documents/DocumentService.h"
#include "host/local/LocalSession.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "host/session/errors.h"
#include "platform/fileprovider/QSFileProviderManager.h"
#include "tests/host/ScriptedExtension.h"
#include "tests/host/Served.h"
#include "tests/support/ScratchFolder.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Millis = std::chrono::milliseconds;

const std::string root(platform::QSFileProviderRootContainerItemIdentifier);
const std::string workingSet(platform::QSFileProviderWorkingSetContainerItemIdentifier);
const std::string allDirectories(platform::QSFileProviderAllDirectoriesContainerItemIdentifier);

platform::ItemRef file(std::string identifier, std::string type = "public.data") {
    return std::make_shared<tests::ScriptedItem>(std::move(identifier), std::move(type));
}
platform::ItemRef folder(std::string identifier) {
    return file(std::move(identifier), "public.folder");
}
const auto package = file("p", "com.quenby.package");

/// A service over a scripted extension whose "/presented" tree is a scratch folder on disk.
class ScriptedServiceTest : public testing::Test {
  protected:
    host::DocumentService& service() {
        if (service_) return *service_;
        const auto native = scratch.path().string();
        host::LocalSession::Options options{
            .pageDeadline = deadline,
            .paths = host::NativePaths{
                [native](const platform::QSURL& url) { return native + url.path().substr(10); },
                [native](std::string_view path) {
                    return platform::QSURL::fileURLWithPath(
                        "/presented" + std::string(path.substr(native.size())));
                }},
            .manager = &manager};
        std::unique_ptr<host::Session> session =
            std::make_unique<host::LocalSession>([this] { return extension; }, std::move(options));
        if (isServed) {
            served_ = std::make_unique<tests::Served>(std::move(session), native);
            session = served_->connect();
        }
        service_ = std::make_unique<host::DocumentService>(
            std::move(session), host::DocumentService::Options{.wait = [this](Millis pause) {
                pauses.push_back(static_cast<int>(pause.count()));
            }});
        return *service_;
    }

    /// The next service() is another one.
    void end() {
        service_.reset();
        served_.reset();
    }

    std::vector<std::string> list(const std::string& container) {
        std::vector<std::string> identifiers;
        result = service().list(container, host::Order::ByName, [&](const auto& item) {
            identifiers.push_back(item.itemIdentifier);
            return identifiers.size() < limit;
        });
        return identifiers;
    }

    /// The changes as text, with a bar behind each page; `reached` becomes the outcome.
    std::string changes(const std::string& container, const host::Anchor& since) {
        std::string text;
        std::size_t pages = 0;
        reached = service().changes(container, since, [&](const host::ChangePage& page) {
            for (const auto& item : page.updates) text += "+" + item.itemIdentifier;
            for (const auto& identifier : page.deletions) text += "-" + identifier;
            text += "|";
            return ++pages < limit;
        });
        return text;
    }

    static host::Anchor anchor(std::string_view text) { return platform::dataFromString(text); }

    void signal(const std::string& signalled) {
        manager.signalEnumeratorForContainerItemIdentifier(
            signalled, [this](const auto& error) { signalsAnswered += error ? 100 : 1; });
    }

    tests::ScriptedContainer& container(const std::string& identifier) {
        return extension->containers[identifier];
    }

    tests::ScratchFolder scratch;
    platform::QSFileProviderManager manager{platform::QSURL::fileURLWithPath("/presented")};
    std::shared_ptr<tests::ScriptedExtension> extension =
        std::make_shared<tests::ScriptedExtension>();
    bool isServed = false;  ///< by another end of a socket
    Millis deadline = std::chrono::seconds(30);
    std::size_t limit = 1000;
    std::vector<int> pauses;
    int signalsAnswered = 0;
    platform::Result<void> result;
    platform::Result<host::Anchor> reached;
    std::unique_ptr<tests::Served> served_;
    std::unique_ptr<host::DocumentService> service_;
};

/// What holds for a session of this process and for one behind a socket.
class DocumentServiceTest : public ScriptedServiceTest, public testing::WithParamInterface<bool> {
  protected:
    DocumentServiceTest() { isServed = GetParam(); }
};
#ifdef __SANITIZE_THREAD__  // does not know that a socket orders what its two ends do
INSTANTIATE_TEST_SUITE_P(Served, DocumentServiceTest, testing::Values(false));
#else
INSTANTIATE_TEST_SUITE_P(Served, DocumentServiceTest, testing::Bool());
#endif

TEST_P(DocumentServiceTest, PagesResumeByTokenOnTheKeptEnumerator) {
    auto& script = container("f");
    script.rows = {file("a"), file("b"), file("c")};
    auto first = service().session().page("f", host::Order::ByDate);
    EXPECT_EQ(script.lastInitialPage, platform::QSFileProviderInitialPageSortedByDate);
    ASSERT_TRUE(first.next && *first.next);
    for (int again = 0; again < 2; ++again) {
        const auto second = service().session().page("f", **first.next);
        ASSERT_EQ(second.items.size(), 1U);
        EXPECT_EQ(second.items[0].itemIdentifier, "c");
        EXPECT_TRUE(second.next && !*second.next);
    }
    EXPECT_EQ(script.enumeratorsMade, 1);
    limit = 1;
    EXPECT_THAT(list("f"), ElementsAre("a"));
    EXPECT_EQ(script.enumeratorsMade, 2) << "a folder may have moved since";
    EXPECT_EQ(script.enumeratorsInvalidated, 1);
    EXPECT_EQ(script.pages, 4U) << "no more are asked for than are wanted";
    for (int client = 0; client < 6; ++client)
        (void)service().session().page("f", host::Order::ByName);
    EXPECT_EQ(script.enumeratorsMade - script.enumeratorsInvalidated, 4) << "each keeps its cursor";

    container("g").rows = script.rows;
    EXPECT_EQ(service().session().page("g", **first.next).next.error().code,
              platform::QPInvalidParameterErrorCode);
    EXPECT_TRUE(host::meansExpired(service().session().page("f", anchor("f")).next.error()));
    end();
    EXPECT_EQ(service().session().page("f", **first.next).items.size(), 1U) << "in another process";
}

TEST_P(DocumentServiceTest, ARefusedFolderStartsAgainGivesEachRowOnceAndUpInTheEnd) {
    // "d" is a file with two names: two rows of one identifier.
    const std::vector rows{file("a"), file("b"), file("c"), file("d"), file("e"), file("d")};
    for (const std::size_t refused : {0U, 1U, 2U, 3U}) {
        pauses.clear();
        container("f") = {.rows = rows, .refusedPages = {refused, refused, 0}};
        EXPECT_THAT(list("f"), ElementsAre("a", "b", "c", "d", "e", "d")) << refused;
        EXPECT_TRUE(result);
        EXPECT_THAT(pauses, ElementsAre(10, 50, 250));
    }
    pauses.clear();
    container("f") = {.rows = rows, .refusedPages = std::vector<std::size_t>(100, 1)};
    EXPECT_THAT(list("f"), ElementsAre("a", "b", "c", "d"));
    EXPECT_TRUE(host::meansExpired(result.error()));
    EXPECT_THAT(pauses, ElementsAre(10, 50, 250, 250, 250, 250, 250));

    container("f").failure = platform::errorFromErrno(EIO);
    EXPECT_THAT(list("f"), ElementsAre());
    EXPECT_EQ(result.error(), platform::errorFromErrno(EIO));
    EXPECT_EQ(pauses.size(), 7U) << "other errors end it at once";
    EXPECT_THAT(list("missing"), ElementsAre());
    EXPECT_TRUE(host::meansNoSuchItem(result.error()));
}

TEST_P(DocumentServiceTest, ARecursiveContainerThatIsRefusedIsJoinedFromFolders) {
    extension->trashContainers = {"trash", "removed"};
    for (const auto& wide : {workingSet, allDirectories}) {
        end();  // its enumerators look at the containers
        extension->containers.clear();
        container(wide).rows = {folder("x"), file("a"), file("b")};
        container(wide).refusedPages = {0, 1, 0};
        container(root).rows = {folder("x"), file("a"), package, folder("removed")};
        container("x").rows = {file("b"), folder("y"), file("c")};
        container("x").refusedPages = {1};
        container("y").rows = {file("d")};
        container("trash").rows = {file("t"), folder("u")};
        container("p").failure = container("u").failure = platform::errorFromErrno(EIO);

        const auto listed = list(wide);
        EXPECT_TRUE(result);
        if (wide == workingSet) {
            EXPECT_THAT(listed, UnorderedElementsAre("x", "a", "b", "p", "removed", "y", "c", "d",
                                                     "t", "u"));
        } else {
            EXPECT_THAT(listed, UnorderedElementsAre("x", "a", "b", "removed", "y"));
        }
        EXPECT_EQ(container(wide).tries, 3U);
    }
    EXPECT_THAT(pauses, ElementsAre(10, 50, 10, 10, 50, 10));
    container(workingSet).refusedPages = {0, 0, 0};
    extension->trashContainers = std::unexpected(platform::errorFromErrno(EIO));
    (void)list(workingSet);
    EXPECT_EQ(result.error(), platform::errorFromErrno(EIO)) << "not listed as empty";
}

TEST_P(DocumentServiceTest, ChangesComePageByPageUntilNothingMoreDoesOrOneFails) {
    auto& script = container("f");
    script.anchor = "0";
    script.changes = {
        {"0", {.updates = {file("a")}, .deletions = {"x", "y"}, .anchor = "1", .moreComing = true}},
        {"1", {.anchor = "2", .moreComing = true}},
        {"2", {.updates = {folder("b")}, .anchor = "3"}},
        {"stuck", {.updates = {file("a")}, .anchor = "stuck", .moreComing = true}}};
    const auto start = service().anchor("f").value();
    EXPECT_EQ(changes("f", start), "+a-x-y||+b|");
    EXPECT_EQ(reached, anchor("3"));
    limit = 1;
    EXPECT_EQ(changes("f", start), "+a-x-y|");
    EXPECT_EQ(reached, anchor("1"));
    EXPECT_EQ(script.enumeratorsMade, 5);  // each looks where the folder is now
    limit = 1000;

    script.changes["2"].failure = platform::errorFromErrno(EIO, "/presented/disk");
    EXPECT_EQ(changes("f", start), "+a-x-y||")
        << "a page that fails delivers nothing but its error";
    EXPECT_EQ(reached.error(), platform::errorFromErrno(EIO, (scratch / "disk").string()));
    EXPECT_EQ(changes("f", anchor("unknown")), "");
    EXPECT_TRUE(host::meansExpired(reached.error()));
    changes("f", anchor("stuck"));
    EXPECT_EQ(reached.error().code, EPROTO);
    script.anchor.reset();
    EXPECT_EQ(service().anchor("f").error().code, ENODATA);
    changes("missing", anchor("0"));
    EXPECT_TRUE(host::meansNoSuchItem(reached.error()));

    end();
    deadline = Millis(1);
    script.neverAnswers = true;
    changes("f", start);
    EXPECT_EQ(reached.error().code, ETIMEDOUT);
    EXPECT_EQ(service().anchor("f").error().code, ETIMEDOUT);
    EXPECT_EQ(script.enumeratorsMade, script.enumeratorsInvalidated);
    list("f");
    EXPECT_EQ(result.error(), platform::errorFromErrno(ETIMEDOUT));
}

TEST_F(ScriptedServiceTest, WhoFollowsIsWokenBySignalsOfItsContainerAlone) {
    std::vector<std::pair<std::string, std::unique_ptr<host::Following>>> followers;
    const std::vector<std::string> containers{"f", "g", root, workingSet, allDirectories};
    for (const auto& name : containers) container(name);
    for (const auto& name : containers)
        followers.emplace_back(name, service().session().follow(name).value());
    EXPECT_EQ(container("f").watches, 1);
    EXPECT_EQ(container(allDirectories).watches, 1);  // shared; the working set has no other
    const auto woken = [&] {
        std::vector<std::string> names;
        for (auto& [name, following] : followers) {
            if (following->wait(Millis(0))) names.push_back(name);
        }
        return names;
    };
    EXPECT_THAT(woken(), ElementsAre());
    for (const auto& name : {"f", "unknown", "f"}) signal(name);
    EXPECT_THAT(woken(), ElementsAre("f"));
    EXPECT_THAT(woken(), ElementsAre());
    signal(allDirectories);
    EXPECT_THAT(woken(), ElementsAre(workingSet, allDirectories));
    signal(root);
    signal(workingSet);
    EXPECT_THAT(woken(), ElementsAre(root, workingSet));

    followers.clear();
    for (const auto& name : {std::string("f"), root, allDirectories}) {
        EXPECT_EQ(container(name).watches, 0) << name;
    }
    EXPECT_TRUE(host::meansNoSuchItem(service().session().follow("missing").error()));
    EXPECT_EQ(container(allDirectories).watches, 0);
    end();
    signal("f");  // nobody is left to take it, and still it is answered
    EXPECT_EQ(signalsAnswered, 7);
}

TEST_F(ScriptedServiceTest, AFollowedFolderThatMovesIsWatchedAtItsNewPlace) {
    container(allDirectories);
    auto& script = container("f");
    extension->identifiersByPath = {{"/presented/a/f", "f"}};
    const auto following = service().session().follow("f");
    ASSERT_TRUE(following);
    signal(allDirectories);
    EXPECT_FALSE((*following)->wait(Millis(0)));
    extension->identifiersByPath = {{"/presented/b/f", "f"}};
    signal(allDirectories);
    EXPECT_TRUE((*following)->wait(Millis(0)));
    EXPECT_EQ(script.enumeratorsMade, 2);
    EXPECT_EQ(script.watches, 1);
    extension->identifiersByPath.clear();
    extension->itemsFound = std::unexpected(platform::errorFromErrno(ENOENT));
    signal(allDirectories);
    EXPECT_FALSE((*following)->wait(Millis(0)))
        << "removed is reported by the signal of the folder itself";
}

TEST_P(DocumentServiceTest, AnItemThatCannotBeLookedAtIsNotMissing) {
    container(allDirectories);
    for (const int reason : {EBUSY, EACCES}) {
        extension->itemsFound = std::unexpected(platform::errorFromErrno(reason));
        EXPECT_EQ(service().path("f").error().code, reason);
    }
    extension->itemsFound = std::unexpected(platform::errorFromErrno(ENOENT));
    EXPECT_EQ(service().path("f").error().code, platform::QSFileProviderErrorNoSuchItem);
}

}  // namespace

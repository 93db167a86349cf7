#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdio.h>

#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/fileprovider/MutableTree.h"
#include "tests/tidewell/MutationsFixture.h"

// Somebody replaces the document, or the folder that it is in, while an operation is at work. What
// took its place is never harmed, and nothing outside is ever touched.

namespace tidewell {
namespace {

namespace fs = std::filesystem;

int tries() {
    const char* wanted = std::getenv("TIDEWELL_SWAP_TRIES");
    return wanted ? std::atoi(wanted) : 300;
}

enum class Verb { Rename, Move, Trash, Remove, MakeFolder, Import };

class SwapTest : public tests::InstalledPlatform, public testing::WithParamInterface<Verb> {
  protected:
    SwapTest() {
        for (const auto* name : {"in", "to", ".Trash"}) {
            fs::permissions(folder(name), fs::perms::owner_all);
        }
        scratch.makeFile("outside/doc", "outside");
        scratch.makeFile("source", "imported");
    }

    void run(const MutableTree& tree, const QSURL& document) {
        QSProgress progress;
        constexpr auto free = MutableTree::Naming::Free;
        switch (GetParam()) {
            case Verb::Rename:
                (void)tree.move(document, url("in"), "renamed", MutableTree::Naming::Exact);
                break;
            case Verb::Move:
                (void)tree.move(document, url("to"), std::nullopt, free);
                break;
            case Verb::Trash:
                (void)tree.trash(document, url(".Trash"));
                break;
            case Verb::Remove:
                (void)tree.remove(document, progress);
                break;
            case Verb::MakeFolder:
                (void)tree.makeFolder(url("in"), "made");
                break;
            case Verb::Import:
                (void)tree.import(QSURL::fileURLWithPath((scratch / "source").string()), url("in"),
                                  progress);
                break;
        }
    }
    /// How many files below the storage hold that.
    [[nodiscard]] int count(const std::string& content) const {
        int found = 0;
        for (const auto& entry : fs::recursive_directory_iterator(storage())) {
            found += entry.is_regular_file() && tests::contentOf(entry.path()) == content;
        }
        return found;
    }
};

TEST_P(SwapTest, TheOtherDocumentIsNeverHarmed) {
    const MutableTree tree(installed->files(), installed->unfinished(), installed->volume());
    std::mutex swapping;
    int swapped = 0;  // guarded by swapping
    std::jthread swapper([&](const std::stop_token& stop) {
        const auto at = (storage() / "in/doc").string();
        const auto other = (storage() / "other").string();
        while (!stop.stop_requested()) {
            {
                const std::scoped_lock lock(swapping);
                swapped +=
                    renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, at.c_str(), RENAME_EXCHANGE) == 0;
            }
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < tries(); ++i) {
        const auto document = url("in/doc");
        std::string stranger;
        {
            const std::scoped_lock lock(swapping);
            (void)file("in/doc");
            (void)scratch.makeFile("storage/other", "other");
        }
        {
            const std::scoped_lock lock(swapping);
            ASSERT_TRUE(installed->files().attributes(document));
            stranger = tests::contentOf(storage() / "in/doc") == "x" ? "other" : "x";
        }
        run(tree, document);
        const std::scoped_lock lock(swapping);
        ASSERT_EQ(count(stranger), 1) << i;
        if (GetParam() != Verb::Remove) {
            ASSERT_EQ(count("x") + count("other"), 2) << i;
        }
        for (const auto& path : tests::pathsBelow(storage())) {
            ASSERT_EQ(path.find(".tidewell-"), std::string::npos) << path;
            if (fs::is_regular_file(storage() / path)) fs::remove(storage() / path);
        }
    }
    EXPECT_GT(swapped, 0);
}

class LinkSwapTest : public SwapTest {};

TEST_P(LinkSwapTest, AFolderThatBecomesALinkLeadsNowhere) {
    const MutableTree tree(installed->files(), installed->unfinished(), installed->volume());
    fs::create_directory_symlink(scratch / "outside", storage() / "link");
    std::jthread swapper([&](const std::stop_token& stop) {
        const auto in = (storage() / "in").string();
        const auto link = (storage() / "link").string();
        for (bool isSwapped = false; !stop.stop_requested() || isSwapped; isSwapped = !isSwapped) {
            renameat2(AT_FDCWD, in.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
        }
    });
    for (int i = 0; i < tries(); ++i) {
        std::ofstream(storage() / "to/doc") << "x";
        (void)rename((storage() / "to/doc").c_str(), (storage() / "link/doc").c_str());
        std::ofstream(scratch / "outside/doc") << "outside";
        run(tree, url("in/doc"));
        ASSERT_EQ(tests::pathsBelow(scratch / "outside"), std::set<std::string>{"doc"}) << i;
        ASSERT_EQ(tests::contentOf(scratch / "outside/doc"), "outside") << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Verbs, SwapTest,
                         testing::Values(Verb::Rename, Verb::Move, Verb::Trash, Verb::Remove));
INSTANTIATE_TEST_SUITE_P(Verbs, LinkSwapTest,
                         testing::Values(Verb::Rename, Verb::Move, Verb::Trash, Verb::Remove,
                                         Verb::MakeFolder, Verb::Import));

}  // namespace
}  // namespace tidewell

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <thread>

#include "platform/fileprovider/MutableTree.h"
#include "tests/platform/volume/VolumeFixture.h"

// Somebody replaces the document, or the folder that it is in, while an operation is at work. What
// took its place is never harmed, and nothing outside is ever touched.

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr int tries = 20'000;

struct stat statusOf(int fd) {
    struct stat status {};
    fstat(fd, &status);
    return status;
}

enum class Verb { Rename, Move, Trash, Remove, MakeFolder, Import };

/// The volume is not followed, so that the time goes into the tries.
class SwapTest : public tests::VolumeFixture, public testing::WithParamInterface<Verb> {
  protected:
    SwapTest() {
        for (const auto* name : {"in/sub", "to"}) fs::create_directories(native(name));
        fs::permissions(scratch.makeFolder("storage/.Trash"), fs::perms::owner_all);
        scratch.makeFile("outside/sub/doc", "outside");
        scratch.makeFile("source", "imported");
        open();
    }
    ~SwapTest() override { EXPECT_TRUE(fs::is_empty(scratch.makeFolder("unfinished"))); }

    void run(const QSURL& document) {
        const MutableTree tree(*files, unfinished, *service);
        QSProgress progress;
        constexpr auto free = MutableTree::Naming::Free;
        switch (GetParam()) {
            case Verb::Rename:
                return (void)tree.move(document, url("in/sub"), "renamed",
                                       MutableTree::Naming::Exact, progress);
            case Verb::Move:
                return (void)tree.move(document, url("to"), std::nullopt, free, progress);
            case Verb::Trash:
                return (void)tree.trash(document, url(".Trash"), MutableTree::Copying::Allowed,
                                        progress);
            case Verb::Remove:
                return (void)tree.remove(document, progress);
            case Verb::MakeFolder:
                return (void)tree.makeFolder(url("in/sub"), "made");
            case Verb::Import:
                return (void)tree.import(QSURL::fileURLWithPath((scratch / "source").string()),
                                         url("in/sub"), progress);
        }
    }
    [[nodiscard]] auto objectsInStorage() const {
        return std::distance(fs::recursive_directory_iterator(native("")), {});
    }

    UnfinishedWork unfinished{*files, (scratch / "unfinished").string()};
    std::atomic<int> swapped = 0;
};

TEST_P(SwapTest, TheOtherDocumentIsNeverHarmed) {
    const auto at = native("in/sub/doc");
    const auto other = native("other");
    std::array<FileDescriptor, 2> documents;
    const auto placeOf = [](const FileDescriptor& document) {
        return fs::read_symlink("/proc/self/fd/" + std::to_string(document.get()));
    };
    const auto putBack = [&](FileDescriptor& document) {
        if (!document || statusOf(document.get()).st_nlink == 0) {
            document.reset(::open(native("new").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600));
        }
        const auto place = placeOf(document);
        if (place == at || place == other) return true;
        return std::ranges::any_of(std::array{at, other}, [&](const fs::path& free) {
            return renameat2(AT_FDCWD, place.c_str(), AT_FDCWD, free.c_str(), RENAME_NOREPLACE) ==
                   0;
        });
    };
    std::mutex swapping;
    std::jthread swapper([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            {
                const std::scoped_lock lock(swapping);
                swapped +=
                    renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, at.c_str(), RENAME_EXCHANGE) == 0;
            }
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < tries; ++i) {
        const auto document = url("in/sub/doc");
        ino_t meant = 0;
        {
            const std::scoped_lock lock(swapping);
            ASSERT_TRUE(putBack(documents[0]) && putBack(documents[1]));
            meant = files->attributes(document).value()->identity.inode;
        }
        run(document);
        const std::scoped_lock lock(swapping);
        for (const auto& kept : documents) {
            const auto status = statusOf(kept.get());
            if (GetParam() == Verb::Remove && status.st_ino == meant) continue;
            ASSERT_EQ(status.st_nlink, 1) << i;
            const auto place = placeOf(kept).string();
            ASSERT_TRUE(place.starts_with(native("").string())) << place;
            ASSERT_EQ(place.find(".tidewell-"), std::string::npos) << place;
            // Back under its name or a free one like it.
            const bool isAtHome = place == other || place.starts_with(at.string());
            ASSERT_TRUE(status.st_ino == meant || isAtHome) << place;
        }
    }
    swapper = {};
    EXPECT_TRUE(putBack(documents[0]) && putBack(documents[1]));
    EXPECT_EQ(objectsInStorage(), 6);
    EXPECT_GT(swapped, 0);
}

class LinkSwapTest : public SwapTest {};

TEST_P(LinkSwapTest, AFolderThatBecomesALinkLeadsNowhere) {
    const auto opened = [&](const fs::path& path) {
        return FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    };
    const auto in = opened(native("in/sub"));
    const auto to = opened(native("to"));
    const auto trash = opened(native(".Trash"));
    const auto outside = opened(scratch / "outside/sub");
    const auto secret = [&] {
        struct stat status {};
        fstatat(outside.get(), "doc", &status, 0);
        return status;
    };
    // Whatever happens in it or to what it holds moves these.
    const auto timesOutside = [&] {
        const auto folder = statusOf(outside.get()).st_ctim;
        const auto document = secret().st_ctim;
        return std::array{folder.tv_sec, folder.tv_nsec, document.tv_sec, document.tv_nsec};
    };
    const auto before = timesOutside();
    fs::create_directory_symlink(scratch / "outside", native("link"));
    std::jthread swapper([&](const std::stop_token& stop) {
        const auto name = native("in").string();
        const auto link = native("link").string();
        for (; !stop.stop_requested() || swapped % 2 != 0; ++swapped) {
            renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
        }
    });
    for (int i = 0; i < tries; ++i) {
        close(openat(in.get(), "doc", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const auto read = files->openObject(url("in/sub/doc"), O_RDONLY);
        ASSERT_TRUE(!read || statusOf(read->get()).st_ino != secret().st_ino) << i;
        run(url("in/sub/doc"));
        ASSERT_EQ(timesOutside(), before) << i;
        for (const auto* name : {"doc", "renamed", "source"}) unlinkat(in.get(), name, 0);
        unlinkat(in.get(), "made", AT_REMOVEDIR);
        unlinkat(to.get(), "doc", 0);
        unlinkat(trash.get(), "doc", 0);
    }
    swapper = {};
    EXPECT_EQ(objectsInStorage(), 5);
    EXPECT_EQ(tests::contentOf(scratch / "outside/sub/doc"), "outside");
    EXPECT_GT(swapped, 0);
}

INSTANTIATE_TEST_SUITE_P(Verbs, SwapTest,
                         testing::Values(Verb::Rename, Verb::Move, Verb::Trash, Verb::Remove));
INSTANTIATE_TEST_SUITE_P(Verbs, LinkSwapTest,
                         testing::Values(Verb::Rename, Verb::Move, Verb::Trash, Verb::Remove,
                                         Verb::MakeFolder, Verb::Import));

}  // namespace
}  // namespace platform

#include <gmock/gmock.h>

#include "tests/platform/volume/VolumeFixture.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
namespace fs = std::filesystem;

/// A library "L" beside the storage "S", which a volume service follows.
class RootsTest : public VolumeFixture {
  protected:
    RootsTest() {
        follows = true;
        scratch.makeFile("container/Documents/note");
        scratch.makeFile("container/Documents/deep/er/note");
        makeFile("mine");
        open();
        const auto container = files->addContainer("org.a", (scratch / "container").string());
        root = container.value().URLByAppendingPathComponent("Documents");
        EXPECT_TRUE(service->waitUntilSettled());
        since = service->currentEventID();
    }
    /// Since the last call: what happened, a letter for the kind before each path.
    std::vector<std::string> events() {
        std::vector<std::string> all;
        const auto found = service->eventsAfter(since, service->currentEventID(), 100'000).value();
        for (const auto& event : found) {
            since = event.id;
            auto path = event.path;
            if (path.starts_with(root.path())) path.replace(0, root.path().size(), "L");
            if (path.starts_with(presentedStoragePath)) {
                path.replace(0, presentedStoragePath.size(), "S");
            }
            const auto has = [&](FSEventFlags flag) { return (event.flags & flag) != 0; };
            all.push_back((has(fsEventCreated) ? "+" : has(fsEventRemoved) ? "-" : "~") + path);
        }
        return all;
    }
    Identity identifyInLibrary(std::string_view path) const { return identify(path, root.path()); }

    QSURL root = QSURL::fileURLWithPath("/");
    std::uint64_t since = 0;
};

TEST_F(RootsTest, WhatComesAndGoesWithARootIsRecordedObjectByObject) {
    ASSERT_TRUE(service->addRoot(root));
    EXPECT_THAT(events(), AllOf(Contains("~S"), IsSupersetOf({"+L/note", "+L/deep", "+L/deep/er",
                                                              "+L/deep/er/note"})));
    ASSERT_TRUE(service->addRoot(root));
    EXPECT_THAT(events(), IsEmpty());
    const auto note = identifyInLibrary("note");
    const auto deep = identifyInLibrary("deep/er/note");
    const auto folder = identifyInLibrary("deep");
    EXPECT_EQ(service->URLForFileID(deep.fileID), url("deep/er/note", root.path()));
    const auto elsewhere = files->addContainer("org.other", "/proc").value();
    EXPECT_EQ(service->addRoot(elsewhere).error().code, EXDEV);

    // Watched from now on.
    scratch.makeFile("container/Documents/deep/er/late");
    ASSERT_TRUE(service->waitUntilSettled());
    EXPECT_THAT(events(), Contains("+L/deep/er/late"));

    ASSERT_TRUE(service->removeRoot(root));
    EXPECT_THAT(events(),
                testing::UnorderedElementsAre("~S", "-L", "-L/note", "-L/deep", "-L/deep/er/note"));
    EXPECT_TRUE(fs::exists(scratch / "container/Documents/deep/er/note"));
    EXPECT_THAT(service->placesOfDocumentID(note.documentID), IsEmpty());
    EXPECT_EQ(service->statistics().roots.size(), 1U);
    // Its folders are not listened to any more.
    scratch.makeFile("container/Documents/deep/unheard");
    makeFile("heard");
    ASSERT_TRUE(service->waitUntilSettled());
    EXPECT_THAT(events(), Each(testing::AnyOf("~S", "+S/heard", "~S/heard")));
    ASSERT_TRUE(service->removeRoot(root));
    ASSERT_TRUE(service->removeRoot(files->storageURL()));
    EXPECT_THAT(events(), IsEmpty());

    ASSERT_TRUE(service->addRoot(root));
    EXPECT_THAT(events(), IsSupersetOf({"~S", "+L/note", "+L/deep", "+L/deep/er/note",
                                        "+L/deep/er/late", "+L/deep/unheard"}));
    EXPECT_EQ(identifyInLibrary("note").documentID, note.documentID);
    EXPECT_EQ(identifyInLibrary("deep/er/note").documentID, deep.documentID);
    EXPECT_EQ(identifyInLibrary("deep").fileID, folder.fileID);
}

TEST_F(RootsTest, AFolderThatTakesARootsPlaceIsAnotherOneAndObjectsThatMovedOutStay) {
    ASSERT_TRUE(service->addRoot(root));
    (void)identifyInLibrary("note");
    const auto moved = identifyInLibrary("deep/er/note");
    fs::rename(scratch / "container/Documents/deep/er/note", native("note"));
    ASSERT_TRUE(service->waitUntilSettled());
    EXPECT_EQ(identify("note").documentID, moved.documentID);
    (void)events();
    fs::rename(scratch / "container/Documents", scratch / "container/Old");
    scratch.makeFile("container/Documents/other");
    ASSERT_TRUE(service->addRoot(root));
    EXPECT_THAT(events(), IsSupersetOf({"-L/note", "+L/other", "~S"}));
    EXPECT_EQ(service->statistics().roots.size(), 2U);
    ASSERT_TRUE(service->removeRoot(root));
    EXPECT_EQ(service->placesOfDocumentID(moved.documentID), std::vector{url("note")});
}

}  // namespace
}  // namespace tests

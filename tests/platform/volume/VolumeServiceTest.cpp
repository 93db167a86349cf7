#include "platform/volume/VolumeService.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "tests/platform/volume/VolumeFixture.h"

namespace tests {
namespace {

using namespace platform;
namespace fs = std::filesystem;

class VolumeServiceTest : public VolumeFixture {};

TEST_F(VolumeServiceTest, AnObjectSeenTooLateDoesNotGetItsReplacementsIdentity) {
    open();
    std::shared_ptr<const FileAttributes> stale;
    // Who else works on the disk may take the number first.
    for (int i = 0; i < 100; ++i) {
        makeFile("a");
        if (stale && attributes("a")->identity.inode == stale->identity.inode) break;
        stale = attributes("a");
        fs::remove(native("a"));
    }
    ASSERT_EQ(attributes("a")->identity.inode, stale->identity.inode);
    ASSERT_TRUE(service->waitUntilSeen());
    // The replacement was seen; then it was asked for; and of a removed folder.
    for (const auto& parent : {stale->parent, stale->parent, ObjectIdentity{1, 1}}) {
        auto object = *stale;
        object.parent = parent;
        VolumeService::IdentityRequest request{
            .object = &object, .name = "former", .wantsDocumentID = true, .result = {}};
        const auto before = service->currentEventID();
        ASSERT_TRUE(service->identify({&request, 1}));
        const auto replacement = identify("a");
        EXPECT_EQ(replacement.fileID, stale->identity.inode);
        EXPECT_NE(request.result.fileID, replacement.fileID);
        EXPECT_NE(request.result.documentID, replacement.documentID);
        // Who lists it there now gets its removal.
        const auto events = service->eventsAfter(before, service->currentEventID(), 100).value();
        EXPECT_TRUE(std::ranges::any_of(events, [&](const FSEvent& event) {
            return event.flags == fsEventRemoved && event.path.ends_with("/former") &&
                   event.documentID == request.result.documentID;
        }));
    }
}

TEST_F(VolumeServiceTest, ASecondOpenerGetsTheOwnersPIDAndAKilledOneLeavesNoLock) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        auto held = tryOpen();
        (void)!write(ready[1], held ? "y" : "n", 1);
        pause();
        _exit(0);
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    for (const auto& holder : {"PID " + std::to_string(child), std::string("another process")}) {
        const auto refused = tryOpen();
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, EBUSY);
        EXPECT_THAT(refused.error().description(), testing::HasSubstr("in use by " + holder));
        fs::remove(scratch / "data/lock");
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    open();
    EXPECT_EQ(service->statistics().lastTrouble, std::nullopt);
    close(ready[0]);
    close(ready[1]);
}

}  // namespace
}  // namespace tests

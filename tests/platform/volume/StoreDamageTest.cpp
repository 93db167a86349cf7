#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>

#include "platform/volume/IdentityStore.h"
#include "tests/platform/volume/VolumeFixture.h"
#include "tests/support/FullDisk.h"

namespace tests {
namespace {

using namespace std::literals;
namespace fs = std::filesystem;

/// Makes writes to this process's descriptor of the file fail.
class ReadOnlyFile {
  public:
    explicit ReadOnlyFile(const fs::path& file) {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry, error) == file) fd_ = std::stoi(entry.path().filename());
        }
        saved_ = dup(fd_);
        const int refusing = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        dup2(refusing, fd_);
        close(refusing);
    }
    ~ReadOnlyFile() {
        dup2(saved_, fd_);
        close(saved_);
    }

  private:
    int fd_ = -1;
    int saved_ = -1;
};

/// Remembers what every identifier was handed out for.
class StoreDamageTest : public VolumeFixture {
  protected:
    using Owner = std::pair<std::uint64_t, std::uint64_t>;
    struct Ledger {
        std::map<std::uint64_t, Owner> files;
        std::map<std::uint32_t, Owner> documents;
    };

    /// Identifies everything there is; no identifier may have had another owner before.
    void identifyEverything() {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(native(""))) {
            names.push_back(entry.path().filename());
        }
        const auto identities = identifyAll(names);
        for (std::size_t i = 0; i < names.size(); ++i) {
            const auto seen = attributes(names[i])->identity;
            const Owner owner{seen.inode, seen.generation};
            ASSERT_EQ(ledger.files.emplace(identities[i].fileID, owner).first->second, owner);
            ASSERT_EQ(ledger.documents.emplace(identities[i].documentID, owner).first->second,
                      owner);
        }
    }
    void copy(std::string_view from, std::string_view to) {
        fs::remove_all(scratch / to);
        fs::copy(scratch / from, scratch / to, fs::copy_options::recursive);
    }
    void restore(std::string_view backup) { copy(backup, "data"); }
    void overwrite(const char* file, std::uint64_t offset, std::string_view bytes) {
        std::fstream stream(scratch / file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(static_cast<std::streamoff>(offset));
        stream << bytes;
    }
    /// The kernel follows in steps that the test makes.
    void openManually() {
        adjust = [this](auto& configuration) {
            configuration.isManual = true;
            configuration.now = [this] { return std::chrono::steady_clock::now() + skew; };
        };
        open();
        ASSERT_TRUE(service->waitUntilSettled());
    }
    /// Replaces the file by another one with the same inode number.
    void reuse(std::string_view from, std::string_view to) const {
        const auto inode = attributes(from)->identity.inode;
        fs::remove(native(from));
        std::vector<std::string> others;  // while somebody else on this disk has the number
        for (makeFile(to); attributes(to)->identity.inode != inode; makeFile(to)) {
            others.push_back("other" + std::to_string(others.size()));
            ASSERT_LT(others.size(), 1000u);
            fs::rename(native(to), native(others.back()));
        }
        for (const auto& other : others) fs::remove(native(other));
    }
    /// The error of a request for the file, 0 where it succeeds.
    int errorOfIdentify(std::string_view path) const {
        const auto object = attributes(path);
        VolumeService::IdentityRequest request{
            .object = object.get(), .name = path, .wantsDocumentID = true, .result = {}};
        const auto done = service->identify({&request, 1});
        return done ? 0 : static_cast<int>(done.error().code);
    }
    std::optional<QSUUID> history() const {
        return service->UUIDForDevice(attributes(".")->device);
    }

    Ledger ledger;
    std::chrono::seconds skew{0};  ///< of the clock of a manual service
};

TEST_F(StoreDamageTest, NoIdentifierEverComesBackForAnotherObject) {
    enum Outcome { Harmless, Doubted, Rebuilt };
    const std::string junk(1024, 'x');
    const std::vector<std::tuple<const char*, std::function<void()>, Outcome>> cases{
        {"nothing", [] {}, Harmless},
        {"one torn slot of the witness", [&] { overwrite("state/witness", 100, "x"); }, Harmless},
        {"torn witness", [&] { overwrite("state/witness", 0, junk); }, Doubted},
        {"lost witness", [&] { fs::remove(scratch / "state/witness"); }, Doubted},
        {"copy from before the last run", [&] { restore("early"); }, Doubted},
        {"copy taken while it ran", [&] { restore("running"); }, Doubted},
        // Not even the tables had been moved out of the log.
        {"lost log of a store that was killed", [&] { restore("killed-without-log"); }, Rebuilt},
        {"lost store", [&] { fs::remove(scratch / "data/volume.db"); }, Rebuilt},
        {"emptied store", [&] { fs::resize_file(scratch / "data/volume.db", 0); }, Rebuilt},
        {"cut store", [&] { fs::resize_file(scratch / "data/volume.db", 5000); }, Rebuilt},
        {"no database", [&] { overwrite("data/volume.db", 0, junk); }, Rebuilt},
        {"later version", [&] { overwrite("data/volume.db", 60, "\0\0\0\x63"sv); }, Rebuilt},
        {"lost both", [&] { fs::remove_all(scratch / "data"); }, Rebuilt},
    };
    for (const auto& [name, damage, outcome] : cases) {
        SCOPED_TRACE(name);
        service.reset();
        for (const char* folder : {"data", "state", "storage"}) fs::remove_all(scratch / folder);
        openFiles();
        ledger = {};
        open();
        copy("data", "killed-without-log");
        fs::remove(scratch / "killed-without-log/volume.db-wal");
        for (const char* kept : {"a", "b"}) makeFile(kept);
        identifyEverything();
        const auto before = identify("a");
        const auto historyBefore = history();
        open();
        copy("data", "early");
        for (int i = 0; i < 20; ++i) makeFile("later" + std::to_string(i));
        identifyEverything();
        copy("data", "running");
        makeFile("last");
        identifyEverything();
        service.reset();

        damage();
        // Strangers take over the inode numbers of the last two rounds.
        fs::remove(native("last"));
        for (int i = 0; i < 20; ++i) fs::remove(native("later" + std::to_string(i)));
        for (int i = 0; i < 21; ++i) makeFile("stranger" + std::to_string(i));
        open();
        identifyEverything();
        const auto after = identify("a");
        EXPECT_EQ(after.documentID == before.documentID, outcome != Rebuilt);
        EXPECT_EQ(after.fileID == before.fileID, outcome != Rebuilt);
        EXPECT_EQ(history() == historyBefore, outcome == Harmless);
        EXPECT_EQ(service->statistics().lastTrouble.has_value(), outcome != Harmless);

        open();  // once settled, it stays so
        identifyEverything();
        EXPECT_EQ(identify("a").documentID, after.documentID);
    }
}

TEST_F(StoreDamageTest, RandomDamageIsNoticedOrHarmless) {
    constexpr unsigned seed = 20240611;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 120; ++i) makeFile("file" + std::to_string(i));
    open();
    identifyEverything();
    service.reset();
    copy("data", "whole");
    copy("state", "witnessed");
    const Ledger handedOut = ledger;
    const auto size = fs::file_size(scratch / "data/volume.db");
    int rebuilt = 0;
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        service.reset();
        restore("whole");
        copy("witnessed", "state");
        ledger = handedOut;
        const auto at = random() % size;
        if (round % 4 < 2) {
            overwrite("data/volume.db", at, std::string(1, static_cast<char>(random())));
        } else if (round % 4 == 2) {
            overwrite("data/volume.db", at / 4096 * 4096, std::string(4096, '\0'));
        } else {
            fs::resize_file(scratch / "data/volume.db", at);
        }
        open();
        identifyEverything();
        rebuilt += service->statistics().lastTrouble.has_value();
    }
    EXPECT_GE(rebuilt, 20);  // every zeroed page and every cut, at the least
    EXPECT_TRUE(fs::exists(scratch / "data/volume.db.damaged-1")) << "the last one was cut";
}

TEST_F(StoreDamageTest, AFailedWriteChangesNothingAndIsOverWhenTheDiskRecovers) {
    open();
    makeFile("a");
    const auto known = identify("a");
    makeFile("b");
    {
        const FullDisk full;
        EXPECT_THAT(errorOfIdentify("b"), testing::AnyOf(EIO, ENOSPC));
        EXPECT_EQ(identify("a").documentID, known.documentID);
    }
    EXPECT_EQ(service->fileIDForDocumentID(known.documentID + 1).error().code, ENOENT);
    const auto later = identify("b");
    EXPECT_GT(later.documentID, known.documentID);
    open();
    EXPECT_EQ(identify("b").documentID, later.documentID);
}

TEST_F(StoreDamageTest, ANumberOfAFailedCommitIsNeverAllocatedAgain) {
    for (const char* name : {"a", "c"}) makeFile(name);
    openManually();
    identifyAll({"a", "c"});
    reuse("a", "b");
    {
        const FullDisk full;
        service->step();
        EXPECT_NE(errorOfIdentify("b"), 0) << "its file ID is in no store yet";
    }
    skew += 2s;  // then it is tried again
    ASSERT_TRUE(service->waitUntilSettled());
    reuse("c", "d");
    ASSERT_TRUE(service->waitUntilSettled());
    for (int run = 0; run < 2; ++run) {
        const auto both = identifyAll({"b", "d"});
        EXPECT_NE(both[0].fileID, both[1].fileID);
        EXPECT_EQ(resolve(both[0].fileID), "b");
        EXPECT_EQ(resolve(both[1].fileID), "d");
        open();
    }
}

TEST_F(StoreDamageTest, ANumberThatTheWitnessMissedIsNeitherHandedOutNorAllocatedAgain) {
    openManually();
    for (const char* name : {"a", "b"}) makeFile(name);
    const auto before = service->currentEventID();
    {
        const ReadOnlyFile refused(scratch / "state/witness");
        EXPECT_EQ(errorOfIdentify("a"), EIO);
        service->step();
        EXPECT_EQ(service->currentEventID(), before);
    }
    skew += 2s;
    const auto b = identify("b").documentID;
    EXPECT_TRUE(service->waitUntilSettled());
    const auto events = service->eventsAfter(before, service->currentEventID(), 100).value();
    EXPECT_EQ(std::ranges::count(events, url("a").path(), &FSEvent::path), 1);
    for (int run = 0; run < 2; ++run) {
        EXPECT_NE(identify("a").documentID, b);
        EXPECT_EQ(identify("b").documentID, b);
        open();
    }
}

TEST(StoreDecisionTest, AnotherFileSystemKeepsNothingAndAnotherMountEverything) {
    const ObjectIdentity root{2, 20};
    const ObjectIdentity other{2, 30};
    for (const auto& [before, now, isSame] :
         std::vector<std::tuple<VolumeFingerprint, VolumeFingerprint, bool>>{
             {{"aa", root}, {"aa", root}, true},
             {{"aa", root}, {"aa", other}, true},  // the storage was moved on its volume
             {{"aa", root}, {"bb", root}, false},
             {{"", root}, {"bb", root}, true},  // a newer kernel tells the UUID
             {{"", root}, {"", root}, true},
             {{"", root}, {"", other}, false},
         }) {
        SCOPED_TRACE(before.uuid + "/" + now.uuid);
        StoreState found;
        found.store = QSUUID::random();
        found.history = QSUUID::random();
        found.marks.reserved = {100, 200, firstFreshFileID + 300};
        found.volume = before;
        const Witness::Record witness{found.store, found.history, found.marks};
        const auto decision = decideAboutStore(found, witness, now, "");
        EXPECT_EQ(decision.dropsObjects, !isSame);
        EXPECT_EQ(decision.state.freshOnly, !isSame);
        EXPECT_EQ(decision.state.history == found.history, isSame);
        EXPECT_EQ(decision.state.marks, found.marks);
        EXPECT_EQ(decision.state.volume.uuid, now.uuid);
    }
}

}  // namespace
}  // namespace tests

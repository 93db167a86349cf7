#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "platform/volume/IdentityStore.h"
#include "tests/platform/volume/VolumeFixture.h"
#include "tests/support/AsOwnerAlone.h"
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
    /// A new storage with the files a and b.
    void beginAnew() {
        service.reset();
        for (const char* folder : {"data", "state", "storage"}) fs::remove_all(scratch / folder);
        openFiles();
        ledger = {};
        open();
        copy("data", "killed-without-log");
        fs::remove(scratch / "killed-without-log/volume.db-wal");
        for (const char* kept : {"a", "b"}) makeFile(kept);
        identifyEverything();
    }
    /// Another run with more files, of which copies are made at several moments.
    void goOn() {
        open();
        copy("data", "early");
        copy("state", "early-state");
        for (int i = 0; i < 20; ++i) makeFile("later" + std::to_string(i));
        identifyEverything();
        copy("data", "running");
        makeFile("last");
        identifyEverything();
        service.reset();
    }
    /// Strangers get the inode numbers of what came since the first copy.
    void replaceLaterFiles() const {
        fs::remove(native("last"));
        for (int i = 0; i < 20; ++i) fs::remove(native("later" + std::to_string(i)));
        for (int i = 0; i < 21; ++i) makeFile("stranger" + std::to_string(i));
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
    std::string folderWitness() const {
        std::array<char, 512> value;
        const auto size =
            getxattr(native("").c_str(), folderWitnessName, value.data(), value.size());
        return {value.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
    }
    /// Puts an earlier one back.
    void setFolderWitness(const std::string& value) const {
        ASSERT_EQ(setxattr(native("").c_str(), folderWitnessName, value.data(), value.size(), 0),
                  0);
    }
    std::optional<QSUUID> history() const {
        return service->UUIDForDevice(attributes(".")->device);
    }

    static constexpr const char* folderWitnessName = "user.com.quenby.tidewell.witness";
    Ledger ledger;
    std::chrono::seconds skew{0};  ///< of the clock of a manual service
};

TEST_F(StoreDamageTest, NoIdentifierEverComesBackForAnotherObject) {
    enum Outcome { Harmless, Doubted, Rebuilt };
    const std::string junk(1024, 'x');
    const std::vector<std::tuple<const char*, std::function<void()>, Outcome>> cases{
        {"nothing", [] {}, Harmless},
        {"one torn slot of the witness", [&] { overwrite("state/witness", 100, "x"); }, Harmless},
        // Either witness is enough.
        {"torn witness", [&] { overwrite("state/witness", 0, junk); }, Harmless},
        {"lost state folder", [&] { fs::remove_all(scratch / "state"); }, Harmless},
        {"lost attribute", [&] { setFolderWitness(""); }, Harmless},
        {"lost witnesses",
         [&] {
             setFolderWitness("");
             fs::remove(scratch / "state/witness");
         },
         Doubted},
        {"copy from before the last run", [&] { restore("early"); }, Doubted},
        {"copy of store and witness",
         [&] {
             restore("early");
             copy("early-state", "state");
         },
         Doubted},
        {"copy taken while it ran", [&] { restore("running"); }, Doubted},
        // Not even the tables had been moved out of the log.
        {"lost log of a store that was killed", [&] { restore("killed-without-log"); }, Rebuilt},
        {"lost store", [&] { fs::remove(scratch / "data/volume.db"); }, Rebuilt},
        {"emptied store", [&] { fs::resize_file(scratch / "data/volume.db", 0); }, Rebuilt},
        {"cut store", [&] { fs::resize_file(scratch / "data/volume.db", 5000); }, Rebuilt},
        {"no database", [&] { overwrite("data/volume.db", 0, junk); }, Rebuilt},
        {"lost store and witness",
         [&] {
             fs::remove_all(scratch / "data");
             fs::remove_all(scratch / "state");
         },
         Rebuilt},
    };
    for (const auto& [name, damage, outcome] : cases) {
        SCOPED_TRACE(name);
        beginAnew();
        const auto before = identify("a");
        const auto historyBefore = history();
        goOn();
        damage();
        replaceLaterFiles();
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

TEST_F(StoreDamageTest, AStoreThatCannotBeWrittenToAnswersWhatItKnows) {
    for (const char* name : {"a", "b"}) makeFile(name);
    open();
    const auto known = identify("a");
    for (const bool hasLog : {false, true}) {
        SCOPED_TRACE(hasLog);
        if (hasLog) {
            // As a process that was killed leaves it.
            copy("data", "running");
            service.reset();
            restore("running");
            ASSERT_TRUE(fs::exists(scratch / "data/volume.db-wal"));
        }
        service.reset();
        const auto store = contentOf(scratch / "data/volume.db");
        const std::array folders{scratch / "data", scratch / "state"};
        const auto readOnly = fs::perms::owner_read | fs::perms::owner_exec;
        for (const auto& folder : folders) fs::permissions(folder, readOnly);
        {
            const AsOwnerAlone asOwner;
            open();
            EXPECT_EQ(identify("a").documentID, known.documentID);
            EXPECT_EQ(resolve(known.fileID), "a");
            EXPECT_THAT(errorOfIdentify("b"), testing::AnyOf(EACCES, EROFS));
            EXPECT_FALSE(service->statistics().lastTrouble);
            service.reset();
        }
        for (const auto& folder : folders) fs::permissions(folder, fs::perms::owner_all);
        EXPECT_EQ(contentOf(scratch / "data/volume.db"), store);
        open();
        EXPECT_EQ(identify("a").documentID, known.documentID);
    }
    EXPECT_NE(identify("b").documentID, known.documentID);
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
        EXPECT_FALSE(service->fileIDOfFolder(attributes("b")->identity));
        EXPECT_TRUE(service->statistics().writeTrouble);
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

TEST_F(StoreDamageTest, AnAnchorOfARunThatOnlyALaterCopyKnowsExpires) {
    openManually();
    ASSERT_TRUE(service->waitUntilSettled());
    const auto change = [&](const char* name) {
        makeFile(name);
        EXPECT_TRUE(service->waitUntilSettled());
        return service->currentEventID();
    };
    const auto known = change("a");
    copy("data", "running");
    copy("state", "running-state");
    const auto inFolder = folderWitness();
    const auto later = change("b");
    service.reset();
    // As if the process had been killed after the copy: no witness says that it went on.
    restore("running");
    copy("running-state", "state");
    setFolderWitness(inFolder);
    openManually();
    const auto isKept = [&](std::uint64_t anchor) {
        return service->eventsAfter(anchor, service->currentEventID(), 100).has_value();
    };
    EXPECT_TRUE(isKept(known));
    EXPECT_FALSE(isKept(later));
    EXPECT_TRUE(service->waitUntilSettled());
    EXPECT_GT(change("c"), later);
    EXPECT_TRUE(isKept(known));
    EXPECT_FALSE(isKept(later));
}

TEST_F(StoreDamageTest, TheWitnessInTheFolderIsNoChangeOfIt) {
    openManually();
    ASSERT_TRUE(service->waitUntilSettled());
    const auto before = service->currentEventID();
    const auto then = folderWitness();
    makeFile("a/b");
    ASSERT_TRUE(service->waitUntilSettled());
    identify("a/b");
    ASSERT_TRUE(service->waitUntilSettled());
    EXPECT_NE(folderWitness(), then);
    openManually();
    ASSERT_TRUE(service->waitUntilSettled());
    const auto events = service->eventsAfter(before, service->currentEventID(), 100).value();
    EXPECT_EQ(std::ranges::count(events, std::string(presentedStoragePath), &FSEvent::path), 1)
        << "for a";
}

TEST_F(StoreDamageTest, AnIdentifierOfTwoObjectsMeansNeither) {
    for (const char* name : {"a", "b", "c"}) makeFile(name);
    open();
    const auto before = identifyAll({"a", "b", "c"});
    service.reset();
    {
        auto database = SQLiteDatabase::open((scratch / "data/volume.db").string()).value();
        ObjectRow row;
        row.inode = attributes("b")->identity.inode;
        row.generation = attributes("b")->identity.generation;
        row.fileID = before[1].fileID;
        row.documentID = before[0].documentID;
        row.names = {{attributes(".")->identity.inode, "b"}};
        ObjectTable table;
        ASSERT_TRUE(table.prepare(database));
        ASSERT_TRUE(table.write({&row, 1}));
    }
    open();
    EXPECT_FALSE(service->fileIDForDocumentID(before[0].documentID));
    const auto after = identifyAll({"a", "b", "c"});
    EXPECT_THAT((std::set{after[0].documentID, after[1].documentID, before[0].documentID,
                          before[1].documentID, before[2].documentID}),
                testing::SizeIs(5));
    EXPECT_EQ(after[2].documentID, before[2].documentID);
    EXPECT_TRUE(service->statistics().lastTrouble);
    open();
    EXPECT_EQ(identify("a").documentID, after[0].documentID);
}

TEST_F(StoreDamageTest, AStoreOfALaterVersionIsRefusedAndLeftAsItIs) {
    makeFile("a");
    open();
    const auto identity = identify("a");
    service.reset();
    overwrite("data/volume.db", 60, "\0\0\0\x63"sv);
    const auto before = contentOf(scratch / "data/volume.db");
    const auto opened = tryOpen();
    ASSERT_FALSE(opened);
    EXPECT_THAT(opened.error().description(), testing::HasSubstr("version 99"));
    EXPECT_EQ(contentOf(scratch / "data/volume.db"), before);
    overwrite("data/volume.db", 60, "\0\0\0\5"sv);
    open();
    EXPECT_EQ(identify("a").documentID, identity.documentID);
    EXPECT_FALSE(service->statistics().lastTrouble);
}

TEST_F(StoreDamageTest, AStoreThatWasNeverFinishedIsNew) {
    fs::create_directory(scratch / "data");
    {
        auto database = SQLiteDatabase::open((scratch / "data/volume.db").string()).value();
        ASSERT_TRUE(database.execute("PRAGMA journal_mode = WAL"));
    }
    open();
    EXPECT_FALSE(service->statistics().lastTrouble);
}

/// Made by version 3: one document, two events, an anchor at the end of the reservation.
constexpr const char* versionThree = R"(
PRAGMA user_version = 3;
CREATE TABLE state (
    id INTEGER PRIMARY KEY CHECK (id = 1), store TEXT NOT NULL, history TEXT NOT NULL,
    event INTEGER NOT NULL, document INTEGER NOT NULL, file INTEGER NOT NULL,
    sequence INTEGER NOT NULL, floor INTEGER NOT NULL, fresh_only INTEGER NOT NULL,
    volume TEXT NOT NULL, root_inode INTEGER NOT NULL, root_generation INTEGER NOT NULL,
    trouble TEXT NOT NULL, sum INTEGER NOT NULL) STRICT;
INSERT INTO state VALUES(1,'69E255EC-2F2E-42B9-99A7-0D82FF63B440',
    '3BCF8BDD-35E6-4C58-8E37-9C7DF5BBE6A9',65539,1026,4611686018427387903,5,1,0,'',10993750,
    5973821852672937155,'',1504259004);
CREATE TABLE objects (
    ino INTEGER PRIMARY KEY, generation INTEGER NOT NULL, file_id INTEGER NOT NULL,
    document_id INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL,
    kind INTEGER NOT NULL, stamp INTEGER NOT NULL, metadata BLOB NOT NULL,
    sum INTEGER NOT NULL) STRICT;
INSERT INTO objects VALUES(10993752,8787013941542633251,10993752,1,10993750,X'62',0,
    1296788494460146329,X'',-1272269134);
CREATE TABLE names (ino INTEGER NOT NULL, parent INTEGER NOT NULL, name BLOB NOT NULL,
    PRIMARY KEY(ino, parent, name)) STRICT, WITHOUT ROWID;
CREATE TABLE events (
    id INTEGER PRIMARY KEY, flags INTEGER NOT NULL, file_id INTEGER NOT NULL,
    document_id INTEGER NOT NULL, kind INTEGER NOT NULL, folder INTEGER NOT NULL,
    folder_generation INTEGER NOT NULL, time INTEGER NOT NULL, path BLOB NOT NULL,
    sum INTEGER NOT NULL) STRICT;
INSERT INTO events VALUES(2,2048,10993752,1,1,10993750,5973821852672937155,1795658669,
    X'2f707269766174652f7661722f7469646577656c6c2f446f63756d656e74732f62',832356791);
INSERT INTO events VALUES(3,2048,0,0,0,0,0,1795658669,
    X'2f707269766174652f7661722f7469646577656c6c2f446f63756d656e7473',-1234018421);
CREATE TABLE orphans (
    document_id INTEGER PRIMARY KEY, ino INTEGER NOT NULL, file_id INTEGER NOT NULL,
    kind INTEGER NOT NULL, folder INTEGER NOT NULL, path BLOB NOT NULL,
    vacant_folder INTEGER NOT NULL, vacant_name BLOB NOT NULL, sum INTEGER NOT NULL) STRICT;
)";

TEST_F(StoreDamageTest, AStoreOfVersionThreeIsTakenAlong) {
    fs::create_directory(scratch / "data");
    {
        auto database = SQLiteDatabase::open((scratch / "data/volume.db").string()).value();
        ASSERT_TRUE(database.execute(versionThree));
    }
    FolderWitness witness{{*QSUUID::fromString("69E255EC-2F2E-42B9-99A7-0D82FF63B440"),
                           *QSUUID::fromString("3BCF8BDD-35E6-4C58-8E37-9C7DF5BBE6A9"),
                           {{65539, 1026, firstFreshFileID - 1}, 5}},
                          true};
    const VolumeFingerprint volume{"", {10993750, 5973821852672937155}};
    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run);
        ObjectIndex index;
        const auto store = IdentityStore::open((scratch / "data").string(),
                                               (scratch / "state").string(), volume, witness, index)
                               .value();
        EXPECT_EQ(store->state().history, witness.record.history);
        EXPECT_EQ(index.node(index.findDocumentID(1)).inode, 10993752u);
        EXPECT_EQ(store->events(1, 65539, 9).value().size(), 2u);
        EXPECT_EQ(store->events(2, 65539, 9).value().size(), 1u);
        EXPECT_TRUE(store->events(65539, 65539, 9)) << "an anchor of version 3";
        EXPECT_FALSE(store->events(1000, 65539, 9));
        EXPECT_GT(store->allocate(Counter::Document).value(), 1026u);
        EXPECT_GT(store->allocate(Counter::Event).value(), 65539u);
        EXPECT_EQ(store->popTrash().size(), static_cast<std::size_t>(run));
        const TrashRow row{"path", {1, ~0ULL}, TrashRecord{{-1, 2}, ""}};
        EXPECT_TRUE(store->writeTrash({&row, 1}));
    }
}

TEST(StoreDecisionTest, IdentifiersDoNotRunOut) {
    const VolumeFingerprint volume{"aa", {2, 20}};
    auto state = decideAboutStore({}, {}, {}, volume, "").state;
    for (int start = 0; start < 1'000; ++start) {
        const auto before = state.marks;
        state = decideAboutStore(state, {}, {}, volume, "").state;
        ASSERT_GT(state.marks[Counter::Document], before[Counter::Document]) << start;
    }
    EXPECT_LT(state.marks[Counter::Document], std::numeric_limits<std::uint32_t>::max());
}

TEST_F(StoreDamageTest, ACleanEndGivesBackWhatWasNotAllocated) {
    std::uint32_t last = 0;
    for (const char* name : {"a", "b", "c"}) {
        makeFile(name);
        open();
        const auto document = identify(name).documentID;
        EXPECT_EQ(document, ++last);
    }
}

TEST(StoreDecisionTest, TheWitnessOfAnotherFolderIsAFloor) {
    const VolumeFingerprint volume{"aa", {2, 20}};
    const auto found = decideAboutStore({}, {}, {}, volume, "").state;
    const Witness::Record own{found.store, found.history, found.marks};
    auto later = own;
    later.marks.reserved[1] += 500;
    later.marks.sequence += 7;
    auto stranger = later;
    stranger.store = QSUUID::random();
    for (const auto& [folder, isRollBack] : std::vector<std::pair<FolderWitness, bool>>{
             {{later, true}, true}, {{later, false}, false}, {{stranger, true}, false}}) {
        const auto decision = decideAboutStore(found, own, folder, volume, "");
        EXPECT_EQ(decision.state.history != found.history, isRollBack);
        EXPECT_EQ(decision.state.marks[Counter::Document], later.marks[Counter::Document]);
        const auto anew = decideAboutStore({}, {}, folder, volume, "");
        EXPECT_EQ(anew.state.marks[Counter::Document], later.marks[Counter::Document]);
        EXPECT_EQ(anew.state.freshOnly, folder.isOfThisFolder);
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
             {{"", root}, {"bb", root}, true},  // a newer kernel reports the UUID
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
        const auto decision = decideAboutStore(found, witness, {}, now, "");
        EXPECT_EQ(decision.dropsObjects, !isSame);
        EXPECT_EQ(decision.state.freshOnly, !isSame);
        EXPECT_EQ(decision.state.history == found.history, isSame);
        EXPECT_EQ(decision.state.marks, found.marks);
        EXPECT_EQ(decision.state.volume.uuid, now.uuid);
    }
}

}  // namespace
}  // namespace tests

#include "platform/volume/ObjectIndex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <set>

namespace tests {
namespace {

using namespace platform;

/// The same answers from maps.
struct NaiveIndex {
    std::map<std::uint64_t, ObjectRow> rows;  // names not used
    std::map<std::pair<std::uint64_t, std::string>, std::uint64_t> names;

    std::set<std::string> paths(std::uint64_t inode) const {
        if (inode == 1) return {""};
        std::set<std::string> paths;
        for (const auto& [place, object] : names) {
            if (object != inode) continue;
            for (const auto& folder : this->paths(place.first)) {
                paths.insert(folder + "/" + place.second);
            }
        }
        return paths;
    }
};

TEST(ObjectIndexTest, AgreesWithANaiveTwinAfterRandomChanges) {
    constexpr unsigned seed = 4242;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    ObjectIndex index;
    NaiveIndex naive;
    std::map<std::uint64_t, ObjectRow> stored;  // what a store would hold
    index.setRoot(index.ensure(1), true);
    std::uint64_t nextFresh = firstFreshFileID;
    std::uint32_t nextDocument = 1;
    const auto takeDirty = [&] {
        for (const auto taken : index.takeDirty())
            stored[index.row(taken).inode] = index.row(taken);
    };
    for (int step = 0; step < 20'000; ++step) {
        const std::uint64_t inode = 2 + random() % 299;
        auto& row = naive.rows[inode];
        row.inode = inode;
        const auto number = index.ensure(inode);
        if (random() % 8 == 0) {
            row.fileID = row.fileID == 0 ? inode : nextFresh++;
            row.documentID = random() % 2 ? nextDocument++ : 0;
            row.generation = random() + 1;
            index.setIdentity(number, row);
            index.markDirty(number);
        } else {
            // A tree: folders have smaller numbers than what they hold.
            const std::uint64_t folder = 1 + random() % std::min<std::uint64_t>(inode - 1, 6);
            const auto length = 1 + random() % 3 * 80;
            const std::pair place{folder,
                                  std::string(length, static_cast<char>('a' + random() % 4))};
            const auto holder = index.ensure(folder);
            const auto own = index.node(number).firstName;
            if (inode <= 6 && own != ObjectIndex::none) {
                const auto& entry = index.entry(own);
                naive.names.erase({index.node(entry.folder).inode, std::string(index.name(entry))});
                index.removeName(own);
            }
            const auto known = index.findEntry(holder, place.second);
            ASSERT_EQ(known != ObjectIndex::none, naive.names.contains(place));
            if (known != ObjectIndex::none) {
                ASSERT_EQ(index.node(index.entry(known).object).inode, naive.names[place]);
                index.removeName(known);
                naive.names.erase(place);
            } else {
                index.addName(number, holder, place.second);
                naive.names[place] = inode;
            }
        }
        if (random() % 4 == 0) takeDirty();
    }
    takeDirty();

    ObjectIndex reloaded;
    reloaded.setRoot(reloaded.ensure(1), true);
    for (const auto& [inode, row] : stored) reloaded.load(row);
    for (const auto& [inode, row] : naive.rows) {
        const auto expected = naive.paths(inode);
        for (const auto* each : {&index, &reloaded}) {
            const auto number = each->findInode(inode);
            ASSERT_NE(number, ObjectIndex::none);
            std::set<std::string> found;
            each->forEachName(number, [&](ObjectIndex::EntryNumber at) {
                const auto folder = each->path(each->entry(at).folder);
                if (!folder) return;
                found.insert((folder->below.empty() ? "" : "/" + folder->below) + "/" +
                             std::string(each->name(each->entry(at))));
            });
            ASSERT_EQ(found, expected) << inode;
            const auto path = each->path(number);
            ASSERT_EQ(path.has_value(), !expected.empty()) << inode;
            if (path) {
                ASSERT_TRUE(expected.contains("/" + path->below));
            }
            std::uint32_t children = 0;
            each->forEachChild(number, [&](ObjectIndex::EntryNumber at) {
                ++children;
                ASSERT_EQ(each->entry(at).folder, number);
            });
            ASSERT_EQ(each->node(number).childCount, children);
            ASSERT_EQ(each->node(number).generation, row.generation);
            ASSERT_EQ(each->findFileID(row.fileID == 0 ? inode : row.fileID), number);
            if (row.documentID != 0) {
                ASSERT_EQ(each->findDocumentID(row.documentID), number);
            }
            // Taken over by a successor, the bare number leads nowhere any more.
            if (row.fileID != 0 && row.fileID != inode) {
                ASSERT_EQ(each->findFileID(inode), ObjectIndex::none);
            }
        }
    }
    EXPECT_LT(index.bytes(), 6u << 20) << "names that were replaced are still held";
}

TEST(ObjectIndexTest, AnObjectMayHaveManyNames) {
    ObjectIndex index;
    const auto folder = index.ensure(1), object = index.ensure(2);
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 60'000; ++i) index.addName(object, folder, std::to_string(i));
    for (int i = 59'999; i > 0; --i) index.removeName(index.findEntry(folder, std::to_string(i)));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
    EXPECT_EQ(index.name(index.entry(index.node(object).firstName)), "0");
}

TEST(ObjectIndexTest, FurtherNamesInTheStoreAreDroppedThoughAnotherHasThem) {
    ObjectIndex index;
    for (const auto& [inode, name] : {std::pair(1U, "b"), std::pair(2U, "a")}) {
        ObjectRow row;
        row.inode = inode;
        row.names = {{3, name}};
        index.load(row);
    }
    index.loadFurtherName(1, {3, "a"});
    EXPECT_EQ(index.takeDisplaced().size(), 1u);
    // Else a later run would find the document there.
    EXPECT_TRUE(index.row(index.findInode(1)).hadMoreNames);
}

}  // namespace
}  // namespace tests

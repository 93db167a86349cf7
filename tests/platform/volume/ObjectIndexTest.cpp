#include "platform/volume/ObjectIndex.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace tests {
namespace {

using namespace platform;

/// The same answers from maps, one entry an inode.
struct NaiveIndex {
    std::map<std::uint64_t, ObjectRow> rows;

    std::optional<std::string> path(std::uint64_t inode) const {
        std::string path;
        for (std::size_t depth = 0; inode != 1; ++depth) {
            const auto found = rows.find(inode);
            if (found == rows.end() || found->second.parent == 0 || depth > rows.size()) {
                return std::nullopt;
            }
            path = found->second.name + (path.empty() ? "" : "/" + path);
            inode = found->second.parent;
        }
        return path;
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
    for (int step = 0; step < 60'000; ++step) {
        const std::uint64_t inode = 2 + random() % 2999;
        auto& row = naive.rows[inode];
        row.inode = inode;
        const auto number = index.ensure(inode);
        switch (random() % 8) {
            case 0:
                row.fileID = row.fileID == 0 ? inode : nextFresh++;
                row.documentID = random() % 2 ? nextDocument++ : 0;
                row.generation = random() + 1;
                index.setIdentity(number, row);
                index.markDirty(number);
                break;
            case 1:
                row.parent = 0;
                index.displace(number);
                break;
            default: {
                // Mostly trees; now and then something that may close a circle.
                row.parent = 1 + random() % (random() % 50 ? inode - 1 : 3000);
                row.name = std::string(1 + random() % 200, static_cast<char>('a' + random() % 26));
                row.kind = ObjectKind::Other;
                index.place(number, index.ensure(row.parent), row.name, row.kind);
            }
        }
        for (const auto taken : index.takeDirty(random() % 4)) {
            const auto written = index.row(taken);
            stored[written.inode] = written;
        }
    }
    for (const auto taken : index.takeDirty(100'000)) {
        const auto written = index.row(taken);
        stored[written.inode] = written;
    }

    ObjectIndex reloaded;
    reloaded.setRoot(reloaded.ensure(1), true);
    for (const auto& [inode, row] : stored) reloaded.load(row);
    int located = 0;
    for (const auto& [inode, row] : naive.rows) {
        for (const auto* each : {&index, &reloaded}) {
            const auto number = each->findInode(inode);
            if (number == ObjectIndex::none) {
                ASSERT_EQ(row.fileID, 0u);  // blank: never written
                continue;
            }
            const auto path = each->path(number);
            ASSERT_EQ(path ? std::optional(path->below) : std::nullopt, naive.path(inode)) << inode;
            located += path.has_value();
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
    EXPECT_GT(located, 100);
    EXPECT_LT(index.bytes(), 6u << 20) << "names that were replaced are still held";
}

TEST(ObjectIndexTest, OneRoundDisplacesWhatItDidNotSee) {
    ObjectIndex index;
    index.setRoot(index.ensure(1), true);
    for (std::uint64_t inode = 2; inode < 100; ++inode) {
        index.place(index.ensure(inode), index.ensure(1), "n", ObjectKind::Other);
    }
    index.beginRound();
    index.place(index.ensure(50), index.ensure(1), "n", ObjectKind::Other);
    for (ObjectIndex::NodeNumber at = 0; at != ObjectIndex::none;) at = index.endRound(at, 7);
    for (std::uint64_t inode = 2; inode < 100; ++inode) {
        EXPECT_EQ(index.path(index.findInode(inode)).has_value(), inode == 50) << inode;
    }
}

}  // namespace
}  // namespace tests

#include "platform/volume/ObjectIndex.h"

#include <gtest/gtest.h>

#include <chrono>

namespace tests {
namespace {

using namespace platform;

TEST(ObjectIndexTest, AnObjectMayHaveManyNames) {
    ObjectIndex index;
    const auto folder = index.ensure(1), object = index.ensure(2);
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 60'000; ++i) index.addName(object, folder, std::to_string(i));
    for (int i = 59'999; i > 0; --i) index.removeName(index.findEntry(folder, std::to_string(i)));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
    EXPECT_EQ(index.name(index.entry(index.node(object).firstName)), "0");
    EXPECT_LT(index.bytes(), 6u << 20) << "names that were removed are still held";
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
    EXPECT_EQ(index.popConflicts().size(), 1u);
    // Else a later run would find the document there.
    EXPECT_TRUE(index.row(index.findInode(1)).hadMoreNames);
}

}  // namespace
}  // namespace tests

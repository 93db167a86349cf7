#include "host/wire/Packing.h"

#include <gtest/gtest.h>

namespace {

using host::packed;
using host::unpacked;

host::ItemRecord fullItem() {
    const platform::QSDate date{-5, 999'999'999};
    return {.itemIdentifier = "did=7",
            .parentItemIdentifier = "fid=1",
            .filename = "not \xFF UTF-8",
            .typeIdentifier = "public.data",
            .documentSize = UINT64_MAX,
            .creationDate = date,
            .contentModificationDate = date,
            .childItemCount = 65'535,
            .capabilities = 63,
            .versionIdentifier = platform::QSData{0, 1},
            .isTrashed = true,
            .lastUsedDate = date,
            .tags = std::vector<std::string>{"a", ""},
            .favoriteRank = 3,
            .fileID = -1,
            .docID = 7,
            .path = "/a",
            .beaconDomainIdentifier = "domain",
            .appContainerBundleIdentifier = "org.a",
            .isContainer = true};
}

/// Nothing shorter, longer or with another byte is taken for the same value.
template <typename T>
void expectExact(const T& value) {
    const auto bytes = packed(value);
    const auto back = unpacked<T>(bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(packed(*back), bytes);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(unpacked<T>(platform::QSDataView(bytes).first(size))) << size;
    }
    auto changed = bytes;
    changed.push_back(0);
    EXPECT_FALSE(unpacked<T>(changed));
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        changed = bytes;
        changed[at] ^= 0x80U;
        const auto other = unpacked<T>(changed);
        EXPECT_TRUE(!other || packed(*other) == changed) << at;
    }
}

TEST(PackingTest, WhatIsPackedComesBackAndNothingElse) {
    const auto item = fullItem();
    EXPECT_EQ(unpacked<host::ItemRecord>(packed(item)), item);
    EXPECT_EQ(unpacked<host::ItemRecord>(packed(host::ItemRecord())), host::ItemRecord());
    expectExact(item);
    auto error = platform::errorFromErrno(ENOSPC, "/a");
    const host::Page page{{item, {}}, std::unexpected(error)};
    expectExact(page);
    EXPECT_EQ(unpacked<host::Page>(packed(page))->next, page.next);
    expectExact(host::Page{{}, host::PageToken{1}});
    expectExact(host::ChangePage{{item}, {"did=8"}, {1, 2}, true});
    expectExact(host::PageStart(host::Order::ByDate));
    expectExact(host::PageStart(host::PageToken{3}));
    expectExact(host::ItemTarget("did=7", {"fid=1", "name"}));
    host::Health health;
    health.roots = {"/a"};
    health.watchLimit = 5;
    expectExact(health);
    expectExact(host::AppRecord{.bundleIdentifier = "org.a", .name = "A", .root = "/r"});
    expectExact(host::Thumbnail{"did=7", platform::QSData{1}, "public.png"});
    expectExact(host::AgeLimit{{1, 2}, platform::QSDate{3, 4}, true});
    EXPECT_FALSE(unpacked<platform::QSDate>(packed(std::int64_t{0}, std::uint32_t{1'000'000'000})));
    EXPECT_FALSE(unpacked<std::vector<host::Nothing>>(packed(UINT32_MAX))) << "a made-up length";
}

}  // namespace

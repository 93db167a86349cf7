// The table of docs/safe-saves.md, a line a case: what becomes of the document ID of doc.txt.
#include "platform/volume/SaveVerdict.h"

#include <gtest/gtest.h>

namespace platform {

namespace {

using namespace std::chrono_literals;
using enum SaveVerdict;

constexpr SaveFacts::Replacement other{}, recent{.isRecent = true};
constexpr SaveFacts::Replacement exchanged{.isRecent = true, .isFromOwnersPlace = true};
constexpr SaveFacts::Replacement swapped{.isFromOwnersPlace = true};
constexpr SaveFacts::Replacement reported{.hasOwnIdentifier = true}, folder{.isSameKind = false};

struct Case {
    const char* ownerName;  ///< null: the object has no name left
    std::optional<SaveFacts::Replacement> replacement;
    SaveVerdict early, late;  ///< after 10 ms, and after the windows
    SaveVerdict needed;       ///< after 10 ms where an identifier is needed
};

constexpr Case cases[] = {
    // The old object is removed: vim, neovim, git checkout, rename over, exchange and unlink.
    {nullptr, other, Wait, Move, Move},
    {nullptr, std::nullopt, Wait, Keep, Keep},
    {nullptr, reported, Keep, Keep, Keep},
    {nullptr, folder, Keep, Keep, Keep},
    // The old object is a backup: vim with backup, emacs, sed -i.bak, patch.
    {"doc.txt~", other, Move, Move, Move},
    {"doc.txt.bak", other, Move, Move, Move},
    {"doc.txt.orig", other, Move, Move, Move},
    {"doc.txt~", reported, Keep, Keep, Keep},
    {"doc.txt~", std::nullopt, Wait, Keep, Keep},
    // It has a temporary name.
    {"4913", other, Move, Move, Move},
    {".#doc.txt", other, Move, Move, Move},
    {".~lock.doc.txt#", other, Move, Move, Move},
    {"lu1234.tmp", other, Move, Move, Move},
    {".goutputstream-A1B2C3", other, Move, Move, Move},
    {"sedAb12Cd", other, Move, Move, Move},
    {".doc.txt.kak.x1", other, Move, Move, Move},
    // It is a user's file: a rename, then a new file of the old name.
    {"doc-old.txt", other, Wait, Keep, Keep},
    {"doc.txt.2", recent, Wait, Keep, Keep},
    {"sed", other, Wait, Keep, Keep},
    {"491", other, Wait, Keep, Keep},
    {"4913 notes", other, Wait, Keep, Keep},
    {"lunch.tmp.txt", other, Wait, Keep, Keep},
    // The two have exchanged their names.
    {"w1", exchanged, Move, Move, Move},
    {"w1", swapped, Wait, Keep, Keep},
};

TEST(SaveVerdictTest, TheTableOfSafeSaves) {
    const VolumeService::Windows windows;
    for (const auto& row : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &row - cases);
        SaveFacts facts{.vacatedName = "doc.txt", .age = 10ms, .replacement = row.replacement};
        if (row.ownerName) facts.ownerName = row.ownerName;
        const auto verdict = [&](auto change) {
            auto changed = facts;
            change(changed);
            return decideAboutSave(changed, windows);
        };
        EXPECT_EQ(decideAboutSave(facts, windows), row.early);
        EXPECT_EQ(verdict([](auto& at) { at.age = 5s; }), row.late);
        EXPECT_EQ(verdict([](auto& at) { at.mustDecide = true; }), row.needed);
        EXPECT_EQ(verdict([](auto& at) { at.isFromScan = true; }), row.needed);
        EXPECT_EQ(verdict([](auto& at) { at.isByThisProcess = true; }), Keep);
    }
}

TEST(SaveVerdictTest, WhatWaitsEndsWithItsWindow) {
    const VolumeService::Windows windows;
    const auto after = [&](std::chrono::milliseconds age, SaveFacts facts) {
        facts.vacatedName = "doc.txt";
        facts.age = age;
        return decideAboutSave(facts, windows);
    };
    const SaveFacts removed{.replacement = other};
    EXPECT_EQ(after(49ms, removed), Wait);
    EXPECT_EQ(after(50ms, removed), Move);
    EXPECT_EQ(after(4s, {.isRead = false, .replacement = other}), Wait) << "a move half read";
    EXPECT_EQ(after(999ms, {}), Wait);
    EXPECT_EQ(after(1000ms, {}), Keep);
    EXPECT_EQ(after(4999ms, {.ownerName = "other"}), Wait);
    EXPECT_EQ(after(5000ms, {.ownerName = "other"}), Keep);
    // A document in the trash has no backup's name, whatever it is called.
    const SaveFacts trashed{.ownerName = "doc.txt~", .isOwnerInTrash = true, .replacement = other};
    EXPECT_EQ(after(4999ms, trashed), Wait);
    EXPECT_EQ(after(5000ms, trashed), Keep);
}

}  // namespace

}  // namespace platform

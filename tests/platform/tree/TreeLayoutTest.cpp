#include "platform/tree/TreeLayout.h"

#include <gtest/gtest.h>

#include "platform/tree/PathRelation.h"

namespace {

using namespace platform;

TEST(TreeLayoutTest, APathIsRelatedByWholeComponents) {
    EXPECT_EQ(relativePath("/a/b/c", "/a"), "b/c");
    EXPECT_EQ(relativePath("/a", "/a/"), "");
    EXPECT_EQ(relativePath("/a", "/"), "a");
    EXPECT_EQ(relativePath("/ab", "/a"), std::nullopt);
    EXPECT_TRUE(isAtOrBelow("/a", "/a") && isBelow("/a/b", "/a"));
    EXPECT_FALSE(isBelow("/a", "/a") || isAtOrBelow("/", "/a"));
}

TEST(TreeLayoutTest, AnApplicationOfAnyIdentifierHasItsLibraryAndTrashInItsContainer) {
    for (const std::string identifier : {"org.a", "Documents", "Documents~", "Documents~~", "~"}) {
        const auto root = libraryRootInContainer(containerURL(identifier));
        EXPECT_EQ(root.lastPathComponent(), "Documents");
        const auto document = root.URLByAppendingPathComponent("x");
        EXPECT_EQ(libraryRootOf(document), root);
        EXPECT_EQ(pathInLibrary(document.path()), "x");
        EXPECT_EQ(identifierOfContainerAt(document.path()), identifier);
        EXPECT_TRUE(isInTrash(trashInLibrary(root).path() + "/x") && hasToStay(root.path()));
        EXPECT_EQ(pathInLibrary(root.path() + "2/x"), std::nullopt);
    }
    EXPECT_EQ(identifierOfContainerAt(presentedContainersPath), std::nullopt);
}

TEST(TreeLayoutTest, FoldersThatHaveToStay) {
    const std::string storage(presentedStoragePath);
    for (const auto* place : {"", "/.Trash", "/.TemporaryLocalFolder", "2"}) {
        EXPECT_TRUE(hasToStay(storage + place)) << place;
    }
    for (const auto* place : {"/.Trash/x", "/a/.Trash", "/.TemporaryLocalFolder/x", "/.Trash2"}) {
        EXPECT_FALSE(hasToStay(storage + place)) << place;
    }
    EXPECT_FALSE(isInTrash("/Documents/.Trash2") || isInTrash("/Documents/a/.Trash/x"));
}

}  // namespace

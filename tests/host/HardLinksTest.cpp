#include <gmock/gmock.h>

#include "host/documents/DocumentService.h"
#include "host/local/LocalSession.h"
#include "host/session/errors.h"
#include "platform/fileprovider/ObjectNames.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace {

using host::ItemTarget;
namespace fs = std::filesystem;

/// One document with the names "a", "b" and "d/c", and a service over them.
class HardLinksTest : public tests::InstalledPlatform {
  protected:
    HardLinksTest() {
        (void)file("a");
        (void)folder("d");
        fs::create_hard_link(storage() / "a", storage() / "b");
        fs::create_hard_link(storage() / "a", storage() / "d/c");
        identifier = at("a").itemIdentifier;
    }

    [[nodiscard]] ItemTarget at(const std::string& name) {
        return service.resolveEntry((storage() / name).string()).value();
    }
    [[nodiscard]] std::string names() const {
        std::string found;
        for (const auto* name : {"a", "b", "d/c", "x", "d/b", ".Trash/b", ".Trash/c"}) {
            if (fs::exists(storage() / name)) found += name + std::string(" ");
        }
        return found;
    }
    /// The description of an error that says that it is not clear which name is meant.
    template <typename T>
    static std::string doubt(const platform::Result<T>& result) {
        if (result) return "done";
        const auto description = result.error().userInfo.find(platform::QSDescriptionErrorKey);
        return result.error().code == EMLINK ? description->second : result.error().description();
    }

    host::DocumentService service{
        std::make_unique<host::LocalSession>([] { return tidewell::makeLocalFileProvider(); })};
    const host::Mutations& verbs = service.mutations();
    std::string identifier;
    const host::Mutations::ProgressHandler none;
};

TEST_F(HardLinksTest, ANameThatVanishesMeansNoOther) {
    auto volume = host::VolumeAccess::ofPlatform();
    volume.preferPlace = [this](const platform::QSURL& place) {
        fs::remove(storage() / "a");
        return platform::preferPlace(place);
    };
    host::DocumentService late(
        std::make_unique<host::LocalSession>([] { return tidewell::makeLocalFileProvider(); },
                                             host::LocalSession::Options{.volume = volume}));
    const auto removed = late.mutations().remove(at("a"), none);
    EXPECT_TRUE(!removed && host::meansNoSuchItem(removed.error()));
    EXPECT_EQ(names(), "b d/c ");
}

TEST_F(HardLinksTest, AVerbActsOnTheNameThatWasShown) {
    EXPECT_EQ(service.item(at("d/c")).value().filename, "c");
    EXPECT_EQ(verbs.rename(at("a"), "x").value().itemIdentifier, identifier);
    EXPECT_EQ(names(), "b d/c x ");
    EXPECT_EQ(verbs.move(at("b"), at("d").itemIdentifier, {}, none).value().filename, "b");
    EXPECT_EQ(names(), "d/c x d/b ");
    EXPECT_EQ(verbs.trash(at("d/b"), none).value().itemIdentifier, identifier);
    EXPECT_TRUE(verbs.trash(at("d/c"), none));
    EXPECT_EQ(names(), "x .Trash/b .Trash/c ");
    EXPECT_TRUE(verbs.remove(at(".Trash/c"), none));
    const auto shown = at(".Trash/b");
    fs::rename(storage() / ".Trash/b", storage() / "a");
    EXPECT_TRUE(host::meansNoSuchItem(verbs.remove(shown, none).error()));
    EXPECT_EQ(names(), "a x ") << "the name is missing, so nothing was meant";
}

TEST_F(HardLinksTest, ABareIdentifierMustMeanOneName) {
    const std::string three = "it has 3 names; give the path of the one that is meant";
    EXPECT_EQ(doubt(verbs.rename(identifier, "x")), three);
    EXPECT_EQ(doubt(verbs.move(identifier, at("d").itemIdentifier, "x", none)), three);
    EXPECT_EQ(doubt(verbs.trash(identifier, none)), three);
    EXPECT_EQ(doubt(verbs.remove(identifier, none)), three);
    EXPECT_EQ(names(), "a b d/c ");
    EXPECT_TRUE(verbs.trash(at("b"), none));
    EXPECT_TRUE(verbs.trash(at("d/c"), none));
    const auto d = at("d").itemIdentifier;
    EXPECT_EQ(doubt(verbs.untrash(identifier, d, none)),
              "it has 2 names in the trash; give the path of the one that is meant");
    EXPECT_TRUE(verbs.remove(at(".Trash/c"), none));
    EXPECT_TRUE(verbs.untrash(identifier, d, none));
    EXPECT_EQ(names(), "a d/b ");
    EXPECT_TRUE(verbs.trash(at("d/b"), none));
    EXPECT_TRUE(verbs.remove(identifier, none)) << "one name is left outside the trash";
    EXPECT_EQ(names(), ".Trash/b ");
}

TEST_F(HardLinksTest, TheTrashIsEmptiedOfItsOwnEntriesAlone) {
    EXPECT_TRUE(verbs.trash(at("b"), none));
    EXPECT_TRUE(verbs.trash(at("d/c"), none));
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(verbs.emptyTrash({platform::QSDate::now().seconds + 60, 0}));
        EXPECT_EQ(names(), "a ");
    }
}

}  // namespace

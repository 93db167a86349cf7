#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/InstalledPlatform.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Has the icons of some variants, and notes which ones it is asked for.
class ScriptedIcons final : public IconLibrary {
  public:
    std::optional<QSData> iconDataForVariant(const std::string& iconName, const std::string&,
                                             int variant) const override {
        asked.push_back(variant);
        if (std::ranges::find(present, variant) == present.end()) return std::nullopt;
        return dataFromString(iconName);
    }
    Result<QIImage> createIconFromCachedBitmap(QSDataView data) const override {
        if (stringFromData(data) == "bad") return std::unexpected(errorFromErrno(EBADMSG));
        if (stringFromData(data) == "odd") return QIImage{4, {}};
        return QIImage{1, {0xFFFF'FFFF}};
    }

    std::vector<int> present;
    mutable std::vector<int> asked;
};

class ThumbnailTest : public tests::InstalledPlatform {
  protected:
    ThumbnailTest() {
        for (const auto* name : {"good", "bad", "odd"}) {
            (void)installApplication(std::string("org.") + name, name,
                                     std::string("Icon=") + name + "\n");
        }
        icons = scripted;
    }
    ~ThumbnailTest() override {
        unsetenv("TIDEWELL_DEVICE_CLASS");
        unsetenv("TIDEWELL_SCREEN_SCALE");
        provider.reset();
        mainQueue().sync([] {});
    }
    void start(const char* deviceClass, const char* scale) {
        setenv("TIDEWELL_DEVICE_CLASS", deviceClass, 1);
        setenv("TIDEWELL_SCREEN_SCALE", scale, 1);
        provider.reset();
        mainQueue().sync([] {});
        restart();
        installed->workspace().refresh();
        provider = LocalFileProvider::init();
    }
    /// Each identifier as it is answered, with the type of its picture; the completion handler has
    /// to come last, and once.
    std::vector<std::string> fetch(const std::vector<std::string>& identifiers) {
        std::vector<std::string> found, untyped;
        int completions = 0;
        const auto done = [&](const std::optional<QSError>& error) {
            EXPECT_FALSE(error);
            ++completions;
        };
        const LocalFileProvider::PerThumbnailCompletionHandlerWithType typed =
            [&](const auto& identifier, const auto& data, const auto& type, const auto& error) {
                EXPECT_FALSE(error || completions > 0);
                EXPECT_EQ(data.has_value(), type.has_value());
                found.push_back(identifier + (type ? " " + *type : ""));
            };
        EXPECT_EQ(provider->fetchThumbnailsForItemIdentifiers(identifiers, {}, typed, done)
                      ->completedItems(),
                  identifiers.size());
        const LocalFileProvider::PerThumbnailCompletionHandler plain =
            [&](const auto& identifier, const auto&, const auto&) {
                untyped.push_back(identifier);
            };
        EXPECT_TRUE(provider->fetchThumbnailsForItemIdentifiers(identifiers, {}, plain, done));
        EXPECT_EQ(completions, 2);
        EXPECT_EQ(untyped, identifiers);
        return found;
    }
    /// The variants that one application's icon is looked for in.
    std::vector<int> walk(const char* deviceClass, const char* scale, std::vector<int> present) {
        start(deviceClass, scale);
        scripted->present = std::move(present);
        scripted->asked.clear();
        const LocalFileProvider::PerThumbnailCompletionHandler none = [](const auto&...) {};
        provider->fetchThumbnailsForItemIdentifiers({"#org.good"}, {}, none, [](const auto&) {});
        return scripted->asked;
    }

    std::shared_ptr<ScriptedIcons> scripted = std::make_shared<ScriptedIcons>();
    std::shared_ptr<LocalFileProvider> provider;
};

TEST_F(ThumbnailTest, TheVariantFollowsTheDevice) {
    EXPECT_THAT(walk("1", "3", {}), ElementsAre(32, 15, 0));
    EXPECT_THAT(walk("3", "3", {}), ElementsAre(32, 24, 1));
    EXPECT_THAT(walk("3", "2", {}), ElementsAre(24, 1));
    EXPECT_THAT(walk("1", "2", {15}), ElementsAre(15));
    EXPECT_THAT(walk("2", "2.5", {}), ElementsAre(0, 0)) << "2.5, then 1.5, then less than 1";
    EXPECT_THAT(walk("3", "0.9", {}), IsEmpty());
}

TEST_F(ThumbnailTest, EachIdentifierIsAnsweredInOrderAndFailuresAreItsOwn) {
    start("3", "1");
    scripted->present = {1};
    const auto file = provider->persistentIdentifierForItemAtURL(url("")).value();
    EXPECT_THAT(
        fetch({file, "#org.bad", "#org.good", "#", "#no", "#org.odd", "did=4", "#org.good"}),
        ElementsAre(file, "#org.bad", "#org.good image/png", "#", "#no", "#org.odd", "did=4",
                    "#org.good image/png"));
    scripted->present = {};
    EXPECT_THAT(fetch({"#org.good"}), ElementsAre("#org.good"));
    EXPECT_THAT(fetch({}), IsEmpty());
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/InstalledPlatform.h"
#include "tidewell/provider/LocalFileProvider.h"

namespace tidewell {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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
    struct Thumbnail {
        std::string identifier;
        bool hasData;
        std::optional<std::string> type;
    };
    /// In the order in which they come; the completion handler has to come last, and once.
    std::vector<Thumbnail> fetch(const std::vector<std::string>& identifiers) {
        std::vector<Thumbnail> found;
        std::vector<std::string> untyped;
        int completions = 0;
        const auto done = [&](const std::optional<QSError>& error) {
            EXPECT_FALSE(error);
            ++completions;
        };
        const LocalFileProvider::PerThumbnailCompletionHandlerWithType typed =
            [&](const auto& identifier, const auto& data, const auto& type, const auto& error) {
                EXPECT_FALSE(error || completions > 0);
                found.push_back({identifier, data.has_value(), type});
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
    const std::vector<std::string> identifiers{file,  "#org.bad", "#org.good", "#",
                                               "#no", "#org.odd", "did=4",     "#org.good"};
    const auto found = fetch(identifiers);
    ASSERT_THAT(found, SizeIs(identifiers.size()));
    for (std::size_t i = 0; i < found.size(); ++i) {
        const bool isGood = identifiers[i] == "#org.good";
        EXPECT_EQ(found[i].identifier, identifiers[i]);
        EXPECT_EQ(found[i].hasData, isGood) << identifiers[i];
        EXPECT_EQ(found[i].type, isGood ? std::optional<std::string>("image/png") : std::nullopt);
    }
    EXPECT_THAT(logged(LogLevel::Debug, "#: can't get app proxy for "), SizeIs(2));
    EXPECT_THAT(logged(LogLevel::Debug, "#org.bad: can't create icon from cached bitmap"),
                SizeIs(2));
    EXPECT_THAT(logged(LogLevel::Error, "#org.odd: can't finalize image"), SizeIs(2));
    EXPECT_THAT(logged(LogLevel::Debug, "#org.good: returning "), SizeIs(4));
    scripted->present = {};
    EXPECT_FALSE(fetch({"#org.good"}).front().hasData);
    EXPECT_THAT(logged(LogLevel::Debug, "#org.good: can't get primary icon data; <"), SizeIs(2));
    EXPECT_THAT(fetch({}), IsEmpty());
}

}  // namespace
}  // namespace tidewell

#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/tidewell/MutationsFixture.h"

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
    Result<QIImage> QICreateIconFromCachedBitmap(QSDataView data) const override {
        if (stringFromData(data) == "bad") return std::unexpected(errorFromErrno(EBADMSG));
        if (stringFromData(data) == "odd") return QIImage{4, {}};
        return QIImage{1, {0xFFFF'FFFF}};
    }

    std::vector<int> present;
    mutable std::vector<int> asked;
};

class ThumbnailTest : public tests::MutationsFixture {
  protected:
    ThumbnailTest() {
        for (const std::string name : {"good", "bad", "odd"}) {
            (void)installApplication("org." + name, name, "Icon=" + name + "\n");
        }
        icons = scripted;
    }
    ~ThumbnailTest() override {
        unsetenv("TIDEWELL_DEVICE_CLASS");
        unsetenv("TIDEWELL_SCREEN_SCALE");
    }
    void start(const char* deviceClass, const char* scale, std::vector<int> present) {
        setenv("TIDEWELL_DEVICE_CLASS", deviceClass, 1);
        setenv("TIDEWELL_SCREEN_SCALE", scale, 1);
        end();
        restart();
        MutationsFixture::start();
        scripted->present = std::move(present);
        scripted->asked.clear();
    }
    /// Each identifier as it is answered, with the type of its picture; the completion handler has
    /// to come last, and once.
    std::vector<std::string> fetch(const std::vector<std::string>& identifiers) {
        std::vector<std::string> found;
        bool isComplete = false;
        const LocalFileProvider::PerThumbnailCompletionHandlerWithType each =
            [&](const auto& identifier, const auto& data, const auto& type, const auto& error) {
                EXPECT_FALSE(error || isComplete);
                EXPECT_EQ(data.has_value(), type.has_value());
                found.push_back(identifier + (type ? " " + *type : ""));
            };
        const auto progress = provider->fetchThumbnailsForItemIdentifiers(
            identifiers, {}, each, [&](const std::optional<QSError>& error) {
                EXPECT_FALSE(error || std::exchange(isComplete, true));
            });
        EXPECT_TRUE(isComplete);
        EXPECT_EQ(progress->completedItems(), identifiers.size());
        return found;
    }
    /// The variants that one application's icon is looked for in.
    std::vector<int> walk(const char* deviceClass, const char* scale, std::vector<int> present) {
        start(deviceClass, scale, std::move(present));
        std::vector<std::string> found;
        const LocalFileProvider::PerThumbnailCompletionHandler untyped =
            [&](const auto& identifier, const auto&...) { found.push_back(identifier); };
        provider->fetchThumbnailsForItemIdentifiers({"#org.good"}, {}, untyped, [](const auto&) {});
        EXPECT_THAT(found, ElementsAre("#org.good"));
        return scripted->asked;
    }

    std::shared_ptr<ScriptedIcons> scripted = std::make_shared<ScriptedIcons>();
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
    start("3", "1", {1});
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

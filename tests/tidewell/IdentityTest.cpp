#include <gmock/gmock.h>

#include <cerrno>

#include "platform/fileprovider/QSFileProviderItem.h"
#include "platform/fileprovider/URLOperations.h"
#include "tests/support/InstalledPlatform.h"
#include "tidewell/identity/QSURL+TWPFileObjectIdentifier.h"
#include "tidewell/identity/TWPFileObjectIdentifier.h"

namespace tidewell {
namespace {

class IdentityTest : public tests::InstalledPlatform {};

TEST_F(IdentityTest, FormFollowsTheKindOfObject) {
    (void)file("a.txt");
    (void)file("p.lutebox/inner");
    (void)folder("d");
    std::filesystem::create_symlink("a.txt", storage() / "link");
    std::filesystem::create_directory_symlink("d", storage() / "dirlink");
    const std::pair<const char*, const char*> cases[] = {
        {"a.txt", "did="}, {"p.lutebox", "did="}, {"p.lutebox/inner", "did="},
        {"d", "fid="},     {"link", "fid="},      {"dirlink", "fid="}};
    for (const auto& [name, prefix] : cases) {
        const auto identifier = itemIdentifier(url(name));
        ASSERT_TRUE(identifier) << name;
        EXPECT_THAT(*identifier, testing::StartsWith(prefix)) << name;
        EXPECT_EQ(fileURLWithItemIdentifier(*identifier), url(name));
        const auto lenient = std::string(prefix) + " +" + identifier->substr(4) + "abc";
        EXPECT_EQ(fileURLWithItemIdentifier(lenient), url(name)) << lenient;
    }
    EXPECT_EQ(itemIdentifier(url()), QSFileProviderRootContainerItemIdentifier);
    EXPECT_EQ(itemIdentifier(QSURL::fileURLWithPath("/var/tidewell/Documents")),
              QSFileProviderRootContainerItemIdentifier);
    EXPECT_EQ(fileURLWithItemIdentifier(QSFileProviderRootContainerItemIdentifier), url());
    EXPECT_FALSE(itemIdentifier(QSURL::fileURLWithPath("/usr/share")));
    EXPECT_FALSE(itemIdentifier(QSURL::URLWithString("https://example.org/x")));
}

TEST_F(IdentityTest, TransientFailuresAreTriedAgainFiveTimes) {
    for (const auto& [code, failures, calls] :
         {std::tuple{EBUSY, 2, 3}, {EAGAIN, 100, 6}, {ENOENT, 100, 1}}) {
        int called = 0;
        const auto fileID = fileIDForDocumentID(7, 1, [&](std::uint64_t, std::uint32_t) {
            errno = code;
            return ++called <= failures ? std::uint64_t{0} : std::uint64_t{42};
        });
        EXPECT_EQ(fileID.has_value(), calls > failures) << code;
        EXPECT_EQ(called, calls) << code;
    }
}

}  // namespace
}  // namespace tidewell

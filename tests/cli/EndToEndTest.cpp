#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "tests/support/Pictures.h"
#include "tests/support/ScratchFolder.h"

// Runs the built program as a shell would.

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tests::contentOf;

struct Outcome {
    int exitCode = -1;
    std::string output = {};
    std::string error = {};

    [[nodiscard]] std::vector<json> lines() const {
        std::vector<json> objects;
        std::istringstream text(output);
        for (std::string line; std::getline(text, line);) objects.push_back(json::parse(line));
        return objects;
    }
};

class TidewellTest : public testing::Test {
  protected:
    /// Runs `tidewell --storage … --state … words`; standard output goes to `outputPath`, where
    /// one is given.
    Outcome run(std::vector<std::string> words, std::string outputPath = {}) {
        const auto out = outputPath.empty() ? (scratch / "stdout").string() : outputPath;
        const auto error = (scratch / "stderr").string();
        words.insert(words.begin(),
                     {"--storage", storage.string(), "--state", (scratch / "state").string()});
        std::string command = "exec '" TIDEWELL_PROGRAM "'";
        for (const auto& word : words) command += " '" + word + "'";
        const int status = std::system((command + " > '" + out + "' 2> '" + error + "'").c_str());
        EXPECT_TRUE(WIFEXITED(status)) << "it did not run to its end: " << contentOf(error);
        return {WEXITSTATUS(status), outputPath.empty() ? contentOf(out) : "", contentOf(error)};
    }

    Outcome runJson(std::vector<std::string> words) {
        words.insert(words.begin(), "--json");
        return run(std::move(words));
    }

    std::string identifierOf(const fs::path& path) {
        return runJson({"resolve", path.string()}).lines().at(0).at("itemIdentifier");
    }

    tests::ScratchFolder scratch;
    fs::path storage = fs::canonical(scratch.makeFolder("Dokumente"));
};

std::vector<std::string> valuesOf(const std::vector<json>& lines, const char* key) {
    std::vector<std::string> values;
    for (const auto& line : lines) values.push_back(line.at(key));
    return values;
}

TEST_F(TidewellTest, PagesHoldEachEntryOnce) {
    std::vector<std::string> made;
    for (const std::size_t wanted : {0U, 199U, 200U, 201U, 400U}) {
        while (made.size() < wanted) {
            made.push_back("entry " + std::to_string(made.size()));
            scratch.makeFile("Dokumente/" + made.back());
        }
        ASSERT_EQ(run({"sync"}).exitCode, 0);
        auto rows = runJson({"ls", "--one-page"}).lines();
        ASSERT_EQ(rows.size(), std::min<std::size_t>(wanted, 200) + 1);
        const auto next = rows.back().at("nextPage");
        EXPECT_EQ(next.is_null(), wanted < 200);
        rows.pop_back();
        // Nothing has happened since, so the token holds in another process.
        const auto rest = next.is_null() ? Outcome{} : runJson({"ls", "--page", next});
        for (const auto& row : rest.lines()) rows.push_back(row);
        EXPECT_THAT(valuesOf(rows, "filename"), testing::UnorderedElementsAreArray(made));
    }
}

/// What the manual says about exit codes, by domain and code ("any": of all other codes).
std::map<std::pair<std::string, std::string>, int> exitCodesOfTheManual() {
    std::map<std::pair<std::string, std::string>, int> codes;
    std::istringstream text(contentOf(ERRORS_PAGE));
    const std::regex row(R"(\| (\S+) \| (-?\d+|any) ?.*\| (\d) \|)");
    std::smatch cells;
    for (std::string line; std::getline(text, line);) {
        if (!std::regex_match(line, cells, row)) continue;
        EXPECT_TRUE(codes.emplace(std::pair(cells[1], cells[2]), std::stoi(cells[3])).second)
            << "twice: " << line;
    }
    return codes;
}

TEST_F(TidewellTest, EveryErrorOfTheManualIsTold) {
    const std::string posix("QSPOSIXErrorDomain");
    const std::string mocha("QSMochaErrorDomain");
    const std::string provider("QSFileProviderErrorDomain");
    const std::string host("QPErrorDomain");
    const auto in = scratch.makeFolder("Dokumente/in").string();
    const auto file = scratch.makeFile("Dokumente/in/file").string();
    scratch.makeFolder("Dokumente/in/sub");
    const auto outside = scratch.makeFile("outside").string();
    const auto link = (storage / "link").string();
    fs::create_symlink("in/file", link);
    fs::permissions(scratch.makeFolder("Dokumente/.Trash"), fs::perms::all);
    const auto gone = identifierOf(scratch.makeFile("Dokumente/gone"));
    EXPECT_EQ(run({"rm", gone}).exitCode, 0);
    const std::vector<std::tuple<std::vector<std::string>, std::string, int>> cases{
        {{"mkdir", "x", "--in", "root"}, mocha, 513},
        {{"import", outside, "--to", "root"}, mocha, 513},
        {{"mv", file, "--to", "root"}, mocha, 513},
        {{"mkdir", "x", "--in", gone}, provider, -1005},
        {{"import", outside, "--to", gone}, provider, -1005},
        {{"rename", gone, "x"}, provider, -1005},
        {{"mv", gone, "--to", in}, host, 1},
        {{"mv", file, "--to", in, "--name", "sub"}, provider, -1001},
        {{"import", scratch / "missing", "--to", in}, posix, ENOENT},
        {{"trash", gone}, host, 1},
        {{"trash", file}, mocha, 513},
        {{"untrash", gone}, host, 1},
        {{"untrash", file}, host, 2},
        {{"rm", gone}, host, 1},
        {{"used", "#org.none", "now"}, host, 2},
        {{"tag", gone, "a"}, host, 1},
        {{"favorite", gone, "1"}, provider, -1005},
        {{"tag", link, "a"}, posix, EOPNOTSUPP},
        {{"cat", gone}, provider, -1005},
        {{"cat", in}, posix, EISDIR},
        {{"cat", link}, posix, ELOOP},
        {{"ls", file}, posix, ENOTDIR},
        {{"ls", "fid=1"}, provider, -1005},
        {{"ls", "--page", "bm8gdG9rZW4="}, provider, -1002},
        {{"changes", "working-set", "--since", "bm8gdG9rZW4="}, provider, -1002},
        {{"path", "fid=1"}, provider, -1005},
        {{"stat", gone}, "Tidewell.LocalFileProviderError", 0},
        {{"stat", storage / "missing"}, posix, ENOENT},
        {{"resolve", file + "/below"}, posix, ENOTDIR},
        {{"resolve", outside}, posix, ENOENT},
        {{"stat"}, "Tidewell.UsageError", 2},
        {{"fly"}, "Tidewell.UsageError", 2}};
    const auto manual = exitCodesOfTheManual();
    auto untold = manual;
    for (const auto& [words, domain, code] : cases) {
        const auto about = words.front() + " " + words.back().substr(0, 99) + ": ";
        const auto outcome = runJson(words);
        const auto error = json::parse(outcome.error, nullptr, false);
        ASSERT_TRUE(error.is_object()) << about << outcome.error;
        EXPECT_EQ(error["error"]["domain"], domain) << about << outcome.error;
        EXPECT_EQ(error["error"]["code"], code) << about << outcome.error;
        EXPECT_TRUE(error["error"]["message"].is_string());
        EXPECT_EQ(outcome.error.find("/private/var/"), std::string::npos) << outcome.error;
        auto row = manual.find({domain, std::to_string(code)});
        if (row == manual.end()) row = manual.find({domain, "any"});
        ASSERT_NE(row, manual.end()) << about << domain << code;
        EXPECT_EQ(outcome.exitCode, row->second) << about;
        untold.erase(row->first);

        const auto plain = run(words);
        EXPECT_EQ(plain.exitCode, outcome.exitCode) << about;
        EXPECT_TRUE(plain.error.starts_with("tidewell: ")) << plain.error;
        const bool isUsage = domain == "Tidewell.UsageError";  // which is followed by the usage
        EXPECT_TRUE(isUsage || std::ranges::count(plain.error, '\n') == 1) << plain.error;
    }
    EXPECT_THAT(untold, testing::IsEmpty());
    for (const auto& [verb, item] : {std::pair{"stat", "root"},
                                     {"stat", "temporary"},
                                     {"ls", "root"},
                                     {"ls", "working-set"},
                                     {"ls", "all-directories"}}) {
        const auto outcome = runJson({verb, item});
        EXPECT_TRUE(outcome.exitCode == 0 && outcome.error.empty()) << outcome.error;
    }
    EXPECT_EQ(run({"ls"}, "/dev/full").exitCode, 1);
}

TEST_F(TidewellTest, DocumentsAreChanged) {
    scratch.makeFile("Dokumente/in/a \xff", "a");
    scratch.makeFile("Dokumente/in/b", "b");
    scratch.makeFile("import/deep/file", "content");
    const auto in = (storage / "in").string();
    const auto document = identifierOf(storage / "in/a \xff");
    const auto succeeds = [&](std::vector<std::string> words, const fs::path& place) {
        const auto outcome = runJson(words);
        EXPECT_EQ(outcome.exitCode, 0) << testing::PrintToString(words) << outcome.error;
        EXPECT_EQ(valuesOf(outcome.lines(), "path"), std::vector<std::string>{place});
    };
    succeeds({"mkdir", "new", "--in", in}, storage / "in/new");
    succeeds({"import", scratch / "import", "--to", in}, storage / "in/import");
    EXPECT_EQ(contentOf(storage / "in/import/deep/file"), "content");
    succeeds({"rename", document, "c"}, storage / "in/c");
    succeeds({"mv", document, "--to", storage / "in/new", "--name", "d"}, storage / "in/new/d");
    EXPECT_EQ(run({"path", document}).output, (storage / "in/new/d").string() + "\n");
    EXPECT_NE(run({"tree"}).output.find("└── d\n"), std::string::npos);
    succeeds({"trash", document}, storage / ".Trash/d");
    succeeds({"empty-trash", "--older-than", "0s", "--dry-run"}, storage / ".Trash/d");
    succeeds({"untrash", document, "--to", "root"}, storage / "d");
    succeeds({"trash", document}, storage / ".Trash/d");
    succeeds({"empty-trash", "--older-than", "0s"}, storage / ".Trash/d");
    EXPECT_FALSE(fs::exists(storage / ".Trash/d"));
    succeeds({"rm", storage / "in/import"}, storage / "in/import");
    EXPECT_FALSE(fs::exists(storage / "in/import"));

    const auto b = identifierOf(storage / "in/b");
    succeeds({"trash", b}, storage / ".Trash/b");
    const auto untrashed = run({"untrash", b});
    EXPECT_NE(untrashed.error.find("give --to"), std::string::npos) << untrashed.error;
}

TEST_F(TidewellTest, MetadataIsKept) {
    const auto file = scratch.makeFile("Dokumente/file", "content").string();
    EXPECT_EQ(run({"cat", file}).output, "content");
    EXPECT_EQ(runJson({"tag", file, "b", "a"}).lines().at(0)["tags"], json({"b", "a"}));
    EXPECT_EQ(runJson({"favorite", file, "7"}).lines().at(0)["favoriteRank"], 7);
    const auto used = runJson({"used", file, "2026-01-31T10:15:00+01:00"}).lines().at(0);
    EXPECT_EQ(used["lastUsedDate"], "2026-01-31T09:15:00.000000000Z");
    for (const auto* verb : {"tag", "favorite", "used"}) {
        EXPECT_EQ(run({verb, file, "--clear"}).exitCode, 0) << verb;
    }
    const auto cleared = runJson({"stat", file}).lines().at(0);
    EXPECT_EQ(cleared["tags"], json::array());
    EXPECT_TRUE(cleared["favoriteRank"].is_null() && cleared["lastUsedDate"].is_null());
}

TEST_F(TidewellTest, AnApplicationsIconComesOutInTheSizeOfTheDevice) {
    const auto icon = scratch.makeFile("icon.svg", tests::svg("#ff0000")).string();
    scratch.makeFile("share/applications/org.app.desktop",
                     "[Desktop Entry]\nType=Application\nExec=x\nName=App\nIcon=" + icon + "\n");
    const auto out = scratch.makeFolder("out").string();
    setenv("XDG_DATA_HOME", (scratch / "share").c_str(), 1);
    setenv("TIDEWELL_SCREEN_SCALE", "2", 1);
    setenv("TIDEWELL_DEVICE_CLASS", "3", 1);
    const auto lines = runJson({"thumbnail", "root", "#org.app", "-o", out}).lines();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines[0]["thumbnail"].is_null());
    EXPECT_EQ(lines[1]["typeIdentifier"], "image/png");
    const auto png = contentOf(lines[1]["thumbnail"].get<std::string>());
    ASSERT_GT(png.size(), 24);
    EXPECT_EQ(static_cast<std::uint8_t>(png[19]), 152);
    EXPECT_EQ(static_cast<std::uint8_t>(png[23]), 152);
    for (const auto* name : {"XDG_DATA_HOME", "TIDEWELL_SCREEN_SCALE", "TIDEWELL_DEVICE_CLASS"}) {
        unsetenv(name);
    }
}

TEST_F(TidewellTest, AReaderThatGoesAwayEndsItQuietly) {
    for (int i = 0; i < 400; ++i) scratch.makeFile("Dokumente/" + std::to_string(i));
    const auto pipe = (scratch / "pipe").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    // There is more than the pipe has room for, so the reader goes while it is being written.
    std::jthread leave([&] { std::ifstream(pipe).get(); });
    const auto outcome = run({"--json", "ls"}, pipe);
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.error, "");
}

}  // namespace

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

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

class ErrorsTest : public TidewellTest {
  protected:
    using Manual = std::map<std::pair<std::string, std::string>, int>;

    /// The command fails with that error, as JSON and as one line for people. Returns its row of
    /// the manual, whose exit code it has.
    Manual::const_iterator expectError(const std::vector<std::string>& words,
                                       const std::string& domain, int code) {
        SCOPED_TRACE(words.front() + " " + words.back().substr(0, 99));
        const auto outcome = runJson(words);
        const auto object = json::parse(outcome.error, nullptr, false);
        EXPECT_TRUE(object.is_object()) << outcome.error;
        const auto error = object.value("error", json::object());
        EXPECT_EQ(error.value("domain", ""), domain) << outcome.error;
        EXPECT_EQ(error.value("code", 9999), code) << outcome.error;
        EXPECT_NE(error.value("message", ""), "");
        EXPECT_EQ(outcome.error.find("/private/var/"), std::string::npos) << outcome.error;
        auto row = manual.find({domain, std::to_string(code)});
        if (row == manual.end()) row = manual.find({domain, "any"});
        EXPECT_EQ(outcome.exitCode, row == manual.end() ? -1 : row->second) << domain << code;

        const auto plain = run(words);
        EXPECT_EQ(plain.exitCode, outcome.exitCode);
        EXPECT_TRUE(plain.error.starts_with("tidewell: ")) << plain.error;
        const bool isUsage = domain == "Tidewell.UsageError";  // which is followed by the usage
        EXPECT_TRUE(isUsage || std::ranges::count(plain.error, '\n') == 1) << plain.error;
        return row;
    }

    const Manual manual = exitCodesOfTheManual();
};

TEST_F(ErrorsTest, EveryErrorOfTheManualIsReported) {
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
    const auto removed = identifierOf(scratch.makeFile("Dokumente/removed"));
    EXPECT_EQ(run({"rm", removed}).exitCode, 0);
    const std::vector<std::tuple<std::vector<std::string>, std::string, int>> cases{
        {{"mkdir", "x", "--in", "root"}, mocha, 513},
        {{"import", outside, "--to", "root"}, mocha, 513},
        {{"mv", file, "--to", "root"}, mocha, 513},
        {{"mkdir", "x", "--in", removed}, provider, -1005},
        {{"import", outside, "--to", removed}, provider, -1005},
        {{"rename", removed, "x"}, provider, -1005},
        {{"mv", removed, "--to", in}, host, 1},
        {{"mv", file, "--to", in, "--name", "sub"}, provider, -1001},
        {{"import", scratch / "missing", "--to", in}, posix, ENOENT},
        {{"trash", removed}, host, 1},
        {{"trash", file}, mocha, 513},
        {{"untrash", removed}, host, 1},
        {{"untrash", file}, host, 2},
        {{"rm", removed}, host, 1},
        {{"used", "#org.none", "now"}, host, 2},
        {{"tag", removed, "a"}, host, 1},
        {{"favorite", removed, "1"}, provider, -1005},
        {{"tag", link, "a"}, posix, EOPNOTSUPP},
        {{"cat", removed}, provider, -1005},
        {{"cat", in}, posix, EISDIR},
        {{"cat", link}, posix, ELOOP},
        {{"ls", file}, posix, ENOTDIR},
        {{"ls", "fid=1"}, provider, -1005},
        {{"ls", "--page", "bm8gdG9rZW4="}, provider, -1002},
        {{"changes", "working-set", "--since", "bm8gdG9rZW4="}, provider, -1002},
        {{"path", "fid=1"}, provider, -1005},
        {{"stat", removed}, "Tidewell.LocalFileProviderError", 0},
        {{"stat", storage / "missing"}, posix, ENOENT},
        {{"resolve", file + "/below"}, posix, ENOTDIR},
        {{"resolve", outside}, posix, ENOENT},
        {{"stat"}, "Tidewell.UsageError", 2},
        {{"fly"}, "Tidewell.UsageError", 2}};
    auto notReported = manual;
    for (const auto& [words, domain, code] : cases) {
        const auto row = expectError(words, domain, code);
        if (row != manual.end()) notReported.erase(row->first);
    }
    EXPECT_THAT(notReported, testing::IsEmpty());
}

TEST_F(ErrorsTest, OnlyWhatFailsIsReported) {
    for (const auto& [verb, item] : {std::pair{"stat", "root"},
                                     {"stat", "temporary"},
                                     {"ls", "root"},
                                     {"ls", "working-set"},
                                     {"ls", "all-directories"}}) {
        const auto outcome = runJson({verb, item});
        EXPECT_TRUE(outcome.exitCode == 0 && outcome.error.empty()) << outcome.error;
    }
    EXPECT_EQ(run({"stat", "root"}, "/dev/full").exitCode, 1);
}

}  // namespace

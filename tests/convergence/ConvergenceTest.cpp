#include "tests/convergence/Convergence.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/convergence/Ledger.h"
#include "tests/convergence/Product.h"
#include "tests/convergence/Recipes.h"
#include "tests/convergence/Replica.h"
#include "tests/support/ScratchFolder.h"

// CONVERGE_D and CONVERGE_R are the numbers of seeds, CONVERGE_FIRST is the first of them.
// CONVERGE_FIRSTS is how many first calls of pairs are tried.

namespace tests {
namespace {

std::size_t number(const char* variable, std::size_t otherwise) {
    const char* value = std::getenv(variable);
    return value ? std::strtoull(value, nullptr, 10) : otherwise;
}

void expectConverges(const RunOptions& options) {
    const auto result = converge(options);
    EXPECT_EQ(result.difference, "") << result.log << commandLine(options);
}

/// The seeds are shared out, so that several processes can run them.
class SeedsTest : public testing::TestWithParam<std::size_t> {};
constexpr std::size_t shares = 10;
INSTANTIATE_TEST_SUITE_P(Share, SeedsTest, testing::Range<std::size_t>(0, shares));

TEST_P(SeedsTest, ReplicasConverge) {
    const auto first = number("CONVERGE_FIRST", 1);
    for (const char mode : {'D', 'R'}) {
        const auto count = mode == 'D' ? number("CONVERGE_D", 400) : number("CONVERGE_R", 20);
        for (auto i = GetParam(); i < count; i += shares) {
            expectConverges({.mode = mode, .seed = first + i});
        }
    }
}

TEST(ConvergenceTest, SeedsThatOnceFailed) {
    std::ifstream list(FAILED_SEEDS);
    ASSERT_TRUE(list);
    for (std::string mode; list >> mode;) {
        RunOptions options{.mode = mode.at(0)};
        unsigned faults = 0;
        list >> options.seed >> options.operations >> std::hex >> faults >> std::dec;
        options.faults = faults;
        expectConverges(options);
    }
}

/// One product whose replica is compared with the disk after each set of scripts.
class ScriptsTest : public testing::Test {
  protected:
    ScriptsTest() {
        scratch.makeFolder("s");
        scratch.makeFolder("out");
        EXPECT_EQ(product.start(), "");
        replica.list(product.service());
    }
    /// The product gets to run after some of the calls.
    void run(const std::string& script) {
        actor.begin(++operation, script);
        while (actor.step()) {
            product.advance(std::chrono::milliseconds(1));
            if (product.isRunning() && below(random, 3) == 0) product.step();
        }
    }
    /// Identifiers by path, once the replica is what is on disk.
    std::map<std::string, std::string> settled() {
        EXPECT_EQ(product.waitUntilSettled(), "");
        replica.pull(product.service());
        Ledger::Barrier barrier{.deeds = log.pop(),
                                .rows = walk(scratch.path().string(), Product::tagAttribute())};
        EXPECT_EQ(replica.compare(barrier.rows, barrier.identifiers), "");
        EXPECT_EQ(replica.refusals(), 0U);
        barrier.deleted = replica.popDeleted();
        EXPECT_EQ(ledger.check(barrier), "");
        std::map<std::string, std::string> byPath;
        tagged.clear();
        for (const auto& row : barrier.rows) {
            if (row.isShown && row.path != "s") byPath[row.path] = barrier.identifiers[row.object];
            if (row.hasAttribute) tagged.insert(row.path);
        }
        deleted = barrier.deleted;
        return byPath;
    }

    ScratchFolder scratch, stores{"/dev/shm"};
    DeedLog log;
    Actor actor{0, {scratch.path().string(), Product::tagAttribute(), Product::tagValue()}, log};
    Product product{scratch.path().string(), stores.path().string(),
                    std::make_shared<KernelScript>(0, 0), true, false};
    Replica replica{"R"};
    Ledger ledger;
    Random random{1};
    std::size_t operation = 0;
    std::set<std::string> deleted, tagged;
};

TEST_F(ScriptsTest, EverySaveKeepsTheDocument) {
    constexpr int rounds = 10;
    for (const bool isRunning : {true, false}) {
        std::map<std::string, const Recipe*> saves;
        std::string folders, documents;
        for (const auto& recipe : recipes()) {
            const auto folder =
                "s/" + std::to_string(&recipe - recipes().data()) + (isRunning ? "live" : "later");
            folders += "mkdir " + folder + "|";
            for (int round = 0; round < rounds; ++round) {
                const auto document = folder + "/doc" + std::to_string(round) + ".txt";
                saves[document] = &recipe;
                documents += "excl " + document + "|put|close|attr " + document + "|";
            }
        }
        run(folders + documents);
        auto before = settled();
        if (!isRunning) product.stop();
        for (const auto& [document, recipe] : saves) {
            run(recipe->on(document));
        }
        ASSERT_EQ(isRunning ? "" : product.start(), "");
        auto after = settled();
        for (const auto& [document, recipe] : saves) {
            EXPECT_EQ(after[document], before[document]) << recipe->program << isRunning;
            EXPECT_FALSE(deleted.contains(before[document])) << recipe->program << isRunning;
            EXPECT_TRUE(tagged.contains(document)) << recipe->program << isRunning;
        }
    }
}

TEST_F(ScriptsTest, WhatIsNoSaveKeepsApart) {
    run("excl s/a|put|close|excl s/b|put|close|excl s/c|put|close|excl s/d|put|close|mkdir s/f");
    auto before = settled();
    run("mv s/a s/renamed|excl s/a|put|close|swap s/b s/c|mv s/d out/d");
    auto after = settled();
    EXPECT_EQ(after["s/renamed"], before["s/a"]);
    EXPECT_NE(after["s/a"], before["s/a"]);
    EXPECT_EQ(after["s/b"], before["s/c"]);
    EXPECT_EQ(after["s/c"], before["s/b"]);
    EXPECT_TRUE(deleted.contains(before["s/d"]));
    run("mv out/d s/f/d|rm s/b|excl s/z|put|close");
    after = settled();
    EXPECT_EQ(after["s/f/d"], before["s/d"]);
    EXPECT_NE(after["s/z"], before["s/c"]) << "at best its inode number is the same";
    EXPECT_TRUE(deleted.contains(before["s/c"]));
}

/// All calls on a small tree: "@" is its folder.
std::vector<std::string> callsOnSmallTree() {
    const std::vector<std::string> places{"@f", "@d", "@d/f", "@.h", "@p.lutebox", "@n"};
    std::vector<std::string> calls;
    for (const auto& at : places) {
        for (const auto* call : {"excl %|put|close", "open %|put|close", "mkdir %", "rm %",
                                 "rmtree %", "sym %", "chmod %", "attr %", "map %"}) {
            std::string text(call);
            calls.push_back(text.replace(text.find('%'), 1, at));
        }
        for (const auto& to : places) {
            if (at == to) continue;
            for (const auto* verb : {"mv ", "swap ", "ln "}) calls.push_back(verb + at + " " + to);
        }
    }
    return calls;
}

/// Pairs of calls, each on a tree of its own: some first calls with all second ones, or with
/// CONVERGE_FIRSTS=144 all of them.
TEST_F(ScriptsTest, PairsOfCallsConverge) {
    const auto calls = callsOnSmallTree();
    const auto step = std::max(calls.size() / number("CONVERGE_FIRSTS", 4), std::size_t{1});
    for (std::size_t first = 0; first < calls.size() && !HasFailure(); first += step) {
        const auto scripts = [&](const std::string& script) {
            for (std::size_t second = 0; second < calls.size(); ++second) {
                run(Recipe{"", false, script.empty() ? calls[second] : script}.on(
                    "s/" + std::to_string(second) + "/"));
            }
        };
        scripts(
            "mkdir @|mkdir @d|excl @f|put|close|excl @d/f|put|close|excl @.h|put|close|"
            "mkdir @p.lutebox|excl @p.lutebox/f|put|close");
        settled();
        scripts(calls[first]);
        if (first / step % 2 == 0) product.step();
        scripts("");
        settled();
        EXPECT_FALSE(HasFailure()) << calls[first];
        scripts("rmtree @");
        ledger = {};  // what met here is of no use to the next tree
    }
}

}  // namespace
}  // namespace tests

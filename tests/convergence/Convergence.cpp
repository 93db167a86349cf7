#include "tests/convergence/Convergence.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/volume/SQLite.h"
#include "tests/convergence/Ledger.h"
#include "tests/convergence/Product.h"
#include "tests/convergence/Recipes.h"
#include "tests/convergence/Replica.h"
#include "tests/support/FullDisk.h"
#include "tests/support/ScratchFolder.h"

namespace tests {

namespace {

constexpr std::size_t operationsPerBarrier = 40;

unsigned faultsOf(const RunOptions& options) {
    if (options.faults) return *options.faults;
    Random random(options.seed ^ 0xFA);
    // Each with one chance in two; those that hide other faults are rarer.
    auto faults = static_cast<unsigned>(random()) & 0x7FF;
    if (below(random, 4) != 0) faults &= ~static_cast<unsigned>(faultWatchLimit);
    if (below(random, 8) != 0) faults &= ~static_cast<unsigned>(faultStoreLoss);
    if (below(random, 4) == 0) faults |= faultLibraries;
    if (below(random, 3) == 0) faults |= faultOwnVerbs;
    if (below(random, 2) == 0) faults |= faultFolders;
    if (below(random, 4) == 0) faults |= faultLinks;
    if (below(random, 4) == 0) faults |= faultFullDisk;
    return faults;
}

/// What the process's open descriptors lead to, sorted; without those by which the pool of workers
/// looks at its threads now and then.
std::vector<std::string> openDescriptors() {
    std::vector<std::string> targets;
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code failed;  // closed since: another thread's
        auto target = std::filesystem::read_symlink(descriptor, failed).string();
        if (!failed && !target.starts_with("/proc/")) targets.push_back(std::move(target));
    }
    std::ranges::sort(targets);
    return targets;
}

/// The script with some of its paths, all of those of a save, in the documents of an application.
std::string partlyInLibraries(const Operation& operation, Random random) {
    std::string script;
    const bool isSave = operation.recipe != nullptr, goes = below(random, 3) == 0;
    const auto library = "l/" + std::string(below(random, 3) == 0 ? "y" : "x") + "/Documents/";
    for (std::size_t at = 0; at < operation.script.size();) {
        const bool isPath = operation.script.compare(at, 3, " s/") == 0;
        const bool goesThere = isPath && (isSave ? goes : below(random, 3) == 0);
        script += goesThere ? " " + library : operation.script.substr(at, isPath ? 3 : 1);
        at += isPath ? 3 : 1;
    }
    return script;
}

/// The script with some of its calls made through the product.
std::string partlyThroughProduct(const std::string& script, Random random) {
    std::string partly;
    std::istringstream calls(script);
    for (std::string call; std::getline(calls, call, '|');) {
        const auto at = call.starts_with('?') ? 1U : 0U;
        const auto verb = call.substr(at, call.find(' ') - at);
        const bool isOwn = verb == "mv" || verb == "rm" || verb == "rmtree" || verb == "mkdir";
        if (isOwn && below(random, 2) == 0) {
            const bool isTrashed = verb == "rm" && below(random, 2) == 0;
            call = call.substr(0, at) + "own " + (isTrashed ? "trash" : "") +
                   call.substr(at + (isTrashed ? 2 : 0));
        }
        partly += call + "|";
    }
    return partly;
}

/// A difference without what depends on the run.
std::string kindOf(const std::string& difference) {
    std::istringstream words(difference);
    std::string kind;
    for (std::string word; words >> word;) {
        if (std::ranges::all_of(word, [](unsigned char c) { return std::isalpha(c) != 0; })) {
            kind += word + " ";
        }
    }
    return kind;
}

class Run {
  public:
    explicit Run(const RunOptions& options)
        : options_(options),
          faults_(faultsOf(options)),
          product_(base(), stores_.path().string(),
                   std::make_shared<KernelScript>(faults_, options.seed), options.mode == 'D',
                   options.seed % 4 == 3) {
        for (const auto* folder : {"s/.Trash", "s/a/a", "s/a/b", "s/b/a", "out", "l/x/Documents"}) {
            scratch_.makeFolder(folder);
        }
        for (auto& replica : folders_) replica.turnTo({});
    }

    RunResult run() {
        note(product_.start());
        for (auto& replica : replicas_) {
            if (!ok()) break;
            replica.list(product_.service());
            replica.keep();
        }
        if (ok()) barrier();
        for (std::size_t next = 0; ok() && next < options_.operations;) {
            const auto end = std::min(next + operationsPerBarrier, options_.operations);
            product_.script().setCalm(false);
            looks_ = next / operationsPerBarrier % 3 > 0;
            if (options_.mode == 'D') {
                runInTurns(next, end);
            } else {
                runInThreads(next, end);
            }
            next = end;
            if (ok()) barrier();
        }
        const auto store = product_.isRunning() ? product_.statistics().storePath : "";
        product_.stop();
        if (auto database = platform::SQLiteDatabase::open(store); ok() && database) {
            const auto verdict = database->value("PRAGMA integrity_check").value_or("unreadable");
            if (verdict != "ok") note("the store: " + verdict);
        }
        return {difference_, log_.tail(2 * operationsPerBarrier), ledger_.judgedSaves()};
    }

  private:
    [[nodiscard]] std::string base() const { return scratch_.path().string(); }
    [[nodiscard]] bool ok() const { return difference_.empty(); }
    [[nodiscard]] bool has(Fault fault) const { return (faults_ & fault) != 0; }
    void note(const std::string& difference) {
        if (ok()) difference_ = difference;
    }
    [[nodiscard]] Random randomOf(std::size_t operation) const {
        return Random(options_.seed * 1'000'003 + operation);
    }

    void begin(Actor& actor, std::size_t index) {
        if (options_.only && !options_.only->contains(index)) return;
        auto random = randomOf(index);
        auto operation =
            has(faultLinks) && index % 2 == 0 ? linkingOperation(random) : randomOperation(random);
        if (has(faultLibraries)) {
            operation.script = partlyInLibraries(operation, Random(options_.seed * 777 + index));
        }
        if (has(faultOwnVerbs) && !operation.recipe) {
            operation.script =
                partlyThroughProduct(operation.script, Random(options_.seed * 555 + index));
        }
        if (operation.recipe && operation.recipe->replaces) {
            const auto name = operation.document.substr(operation.document.rfind('/') + 1);
            log_.add({.actor = 0, .operation = index, .call = "save " + name});
        }
        actor.begin(index, operation.script);
    }

    /// Both actors, call by call, and the product in between.
    void runInTurns(std::size_t next, std::size_t end) {
        Random random = randomOf(next + 1'000'000);
        std::array<bool, 2> isBusy{};
        while (ok() && (next < end || isBusy[0] || isBusy[1])) {
            const auto turn = below(random, 2);
            if (!isBusy.at(turn) && next < end) {
                random = randomOf(next + 1'000'000);
                begin(actors_.at(turn), next++);
                isBusy.at(turn) = true;
            }
            if (!isBusy.at(turn)) continue;
            isBusy.at(turn) = actors_.at(turn).step();
            letProductRun(random);
        }
    }

    void runInThreads(std::size_t first, std::size_t end) {
        std::atomic<int> running = 2;
        const auto work = [&](std::size_t number) {
            Random random = randomOf(first + 1'000'000 + number);
            for (auto index = first + number; index < end; index += 2) {
                begin(actors_.at(number), index);
                while (actors_.at(number).step()) {
                    if (below(random, 20) > 0) continue;
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }
            --running;
        };
        std::jthread one(work, 0), other(work, 1);
        Random random = randomOf(first + 2'000'000);
        while (running > 0) letProductRun(random);
    }

    /// What clients, the clock and the product do between two calls of actors.
    void letProductRun(Random& random) {
        if (has(faultLibraries) && below(random, 60) == 0) changeLibraries(random);
        if (!product_.isRunning()) {
            if (below(random, 20) > 0) return;
            fullFor_ = 0;
            note(product_.start());
            logDeed("the product begins");
            return;
        }
        product_.advance(std::chrono::milliseconds(1));
        const auto happens = [&](Fault fault, std::size_t oneIn) {
            return has(fault) && below(random, oneIn) == 0;
        };
        if (options_.mode == 'D' && happens(faultFullDisk, 80)) fullFor_ = below(random, 40);
        auto full = fullFor_ > 0 ? std::make_unique<FullDisk>() : nullptr;
        if (full) --fullFor_;
        for (auto* replica : allReplicas()) replica->setPatient(full != nullptr);
        if (happens(faultPauses, 40)) pause_ = below(random, 60);
        if (pause_ > 0) {
            --pause_;
        } else if (below(random, 4) == 0) {
            product_.step();
        }
        if (happens(faultClock, 40)) {
            product_.advance(std::chrono::milliseconds(below(random, 6000)));
            logDeed("time passes");
        }
        if (looks_ && below(random, 6) == 0) {
            log_.setLooking(true);
            logDeed("look");
            if (below(random, 2) == 0) {
                letThirdRun(random);
            } else if (product_.isSignalled()) {
                replicas_[0].pull(product_.service());
            }
            log_.setLooking(false);
        }
        if (happens(faultFolders, 4)) {
            auto& replica = folders_.at(below(random, folders_.size()));
            if (replica.container().empty() || below(random, 20) == 0) {
                replica.turnTo(replicas_[0].anyFolder(random));
            }
            log_.setLooking(true);
            logDeed("look");
            replica.pull(product_.service());
            log_.setLooking(false);
        }
        full.reset();  // an end of the product, with its copy, is the run's own
        if (happens(faultRestarts, 100)) stop();
        for (const auto* replica : allReplicas()) note(replica->failure());
    }

    std::vector<Replica*> allReplicas() {
        std::vector<Replica*> all;
        for (auto& replica : replicas_) all.push_back(&replica);
        for (auto& replica : folders_) all.push_back(&replica);
        return all;
    }

    /// It lists step by step, drops its state, and goes on from what it once kept.
    void letThirdRun(Random& random) {
        auto& replica = replicas_[2];
        if (replica.isListing() || below(random, 10) == 0) {
            replica.listStep(product_.service());
        } else if (below(random, 4) == 0) {
            replica.goBack();
        } else {
            replica.pull(product_.service());
            if (!replica.isListing() && below(random, 4) == 0) replica.keep();
        }
    }

    /// An application comes or goes.
    void changeLibraries(Random& random) {
        const std::string application = below(random, 2) == 0 ? "x" : "y";
        const bool goes = product_.applications().contains(application);
        Deed deed{.call = application + (goes ? " is removed" : " is installed")};
        const auto documents = base() + "/l/" + application + "/Documents";
        deed.hidden.push_back(objectKey(documents));
        std::error_code none;
        using Iterator = std::filesystem::recursive_directory_iterator;
        // The actors may remove the folder around it.
        for (Iterator at(documents, none), end; at != end; at.increment(none)) {
            const auto& entry = *at;
            const auto object = objectKey(entry.path());
            const auto place =
                placeOf(objectKey(entry.path().parent_path()), entry.path().filename().string());
            deed.sightings.push_back({place, object});
            // What comes may have lost another name while this one was not shown.
            deed.left.push_back(object);
            if (goes) deed.hidden.push_back(object);
        }
        if (goes) {
            product_.uninstall(application);
        } else {
            product_.install(application);
        }
        log_.add(std::move(deed));
    }

    void logDeed(std::string what) { log_.add({.call = std::move(what)}); }

    void stop() {
        logDeed("the product ends");
        if (has(faultKills) && options_.mode == 'D') return product_.kill();
        product_.stop();
        if (!has(faultStoreLoss)) return;
        forgetsIdentifiers_ = true;
        std::filesystem::remove_all(stores_ / "data");
    }

    void barrier() {
        if (!product_.isRunning()) note(product_.start());
        if (!ok()) return;
        product_.script().setCalm(true);
        for (auto* replica : allReplicas()) replica->setPatient(false);
        note(product_.waitUntilSettled());
        Ledger::Barrier barrier{
            .deeds = log_.pop(),
            .rows = walk(base(), Product::tagAttribute(), product_.applications())};
        barrier.forgetsIdentifiers = std::exchange(forgetsIdentifiers_, false);
        barrier.isReportedLate = has(faultSplits);
        replicas_[1].goBack();
        do {
            while (replicas_[2].isListing()) replicas_[2].listStep(product_.service());
            replicas_[2].pull(product_.service());
        } while (replicas_[2].isListing());
        Replica fresh("a new listing");
        fresh.list(product_.service());
        for (auto* replica : {&replicas_[0], &replicas_[1], &replicas_[2], &fresh}) {
            replica->pull(product_.service());
            barrier.deleted.merge(replica->popDeleted());
            note(replica->compare(barrier.rows, barrier.identifiers));
            if (replica->refusals() == 0 || product_.script().overflows() > 0) continue;
            // Of the clients of the working set, one gets another set of applications.
            if (!has(faultStoreLoss) && !has(faultLibraries))
                note("an anchor was refused although nothing was lost");
        }
        for (auto& replica : folders_) {
            replica.pull(product_.service());
            auto identifiers = barrier.identifiers;  // the others are of what is shown
            note(replica.compare(barrier.rows, identifiers, placeOfFolder(replica.container())));
        }
        const auto isFolder = [](const WalkedRow& row) {
            return row.kind == 'd' || row.kind == 'p';
        };
        const auto folders = std::ranges::count_if(barrier.rows, isFolder);
        const auto watches = static_cast<std::ptrdiff_t>(product_.statistics().watches);
        if (ok()) note(ledger_.check(std::move(barrier)));
        if (watches == folders || has(faultWatchLimit)) return;
        note(std::to_string(watches) + " watches for " + std::to_string(folders) + " folders");
    }

    /// Where the walk has the folder.
    std::string placeOfFolder(const std::string& identifier) {
        const auto path = product_.service().path(identifier);
        if (identifier.empty() || !path) return {};
        auto place = path->substr(base().size() + 1);
        if (place.starts_with("l/")) {
            place.replace(0, 1, "s").erase(place.find("/Documents"), 10);
        }
        return place;
    }

    const RunOptions& options_;
    const unsigned faults_;
    ScratchFolder scratch_;
    // In memory: it is not the disk's patience that is tested.
    ScratchFolder stores_{"/dev/shm"};
    DeedLog log_;
    Product product_;
    const Actor::Place place_{base(), Product::tagAttribute(), Product::tagValue(),
                              [this](const auto& verb, const auto& at, const auto& to) {
                                  return product_.perform(verb, at, to);
                              }};
    std::array<Actor, 2> actors_{{{0, place_, log_}, {1, place_, log_}}};
    std::array<Replica, 3> replicas_{Replica("R1"), Replica("R2"), Replica("R3")};
    std::array<Replica, 2> folders_{Replica("F1"), Replica("F2")};
    Ledger ledger_;
    std::size_t pause_ = 0;
    std::size_t fullFor_ = 0;  ///< the disk is full
    bool looks_ = true;        // whether anyone looks before the barrier
    bool forgetsIdentifiers_ = false;
    std::string difference_;
};

}  // namespace

RunResult converge(const RunOptions& options) {
    const auto before = openDescriptors();
    RunResult result = Run(options).run();
    const auto after = openDescriptors();
    std::vector<std::string> changed;
    std::ranges::set_symmetric_difference(before, after, std::back_inserter(changed));
    if (result.difference.empty() && !changed.empty()) {
        result.difference = "descriptors opened, or closed, by the run:";
        for (const auto& target : changed) result.difference += " " + target;
    }
    return result;
}

std::string commandLine(const RunOptions& options) {
    std::ostringstream line;
    line << "converge --mode=" << options.mode << " --seed=" << options.seed
         << " --ops=" << options.operations << " --faults=0x" << std::hex << faultsOf(options)
         << std::dec;
    if (options.only) {
        line << " --only=";
        for (const auto operation : *options.only) line << operation << ",";
    }
    return line.str();
}

RunOptions shrink(RunOptions options) {
    const auto wanted = kindOf(converge(options).difference);
    if (wanted.empty()) return options;
    if (!options.only) {
        options.only.emplace();
        for (std::size_t i = 0; i < options.operations; ++i) options.only->insert(i);
    }
    for (std::size_t chunk = options.only->size() / 2; chunk > 0; chunk /= 2) {
        const std::vector<std::size_t> all(options.only->begin(), options.only->end());
        for (std::size_t begin = 0; begin < all.size(); begin += chunk) {
            auto fewer = options;
            for (auto i = begin; i < std::min(begin + chunk, all.size()); ++i) {
                fewer.only->erase(all[i]);
            }
            if (kindOf(converge(fewer).difference) == wanted) options = std::move(fewer);
        }
    }
    return options;
}

}  // namespace tests

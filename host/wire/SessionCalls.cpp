#include "host/wire/SessionCalls.h"

#include <cerrno>
#include <tuple>
#include <type_traits>
#include <utility>

namespace host {

using platform::Result;

namespace {

/// An answer may be this long.
constexpr std::size_t mostBytes = std::size_t{64} * 1024 * 1024;

Result<Bus::Answer> answerWith(platform::QSData bytes) {
    if (bytes.size() > mostBytes) return std::unexpected(platform::errorFromErrno(E2BIG));
    return Bus::Answer{std::move(bytes), {}};
}

template <typename T>
Result<Bus::Answer> answerFor(const Result<T>& result) {
    if (!result) return std::unexpected(result.error());
    if constexpr (std::is_void_v<T>) {
        return answerWith(packed(Nothing()));
    } else {
        return answerWith(packed(*result));
    }
}

Result<Bus::Answer> answerFor(Result<platform::FileDescriptor> file) {
    if (!file) return std::unexpected(std::move(file.error()));
    return Bus::Answer{{}, std::move(*file)};
}

Result<Bus::Answer> answerFor(const Page& page) {
    return answerWith(packed(page));
}

using Context = SessionCalls::Context;
using Text = std::string;

}  // namespace

template <typename... Values, typename Function>
void SessionCalls::add(Kind kind, std::string name, Function function) {
    members_.emplace(
        std::move(name),
        Member{kind, [function](const Context& context, Unpacker& values) {
                   // In order, which braces guarantee.
                   const std::tuple<Values...> given{values.next<Values>()...};
                   if (!values.isWhole()) {
                       return Result<Bus::Answer>(
                           std::unexpected(platform::errorFromErrno(EINVAL)));
                   }
                   return std::apply(
                       [&](const auto&... value) { return answerFor(function(context, value...)); },
                       given);
               }});
}

SessionCalls::SessionCalls(Searcher search) {
    addQuestions();
    addOperations();
    add<Text>(Kind::Question, "Search",
              [search = std::move(search)](const Context& /*context*/, const Text& text) {
                  return search(text);
              });
}

const SessionCalls::Member* SessionCalls::find(std::string_view name) const {
    const auto found = members_.find(name);
    return found == members_.end() ? nullptr : &found->second;
}

void SessionCalls::addQuestions() {
    constexpr auto question = Kind::Question;
    add<ItemTarget>(question, "Item", [](const Context& context, const ItemTarget& target) {
        return context.session.item(target);
    });
    add<Text>(question, "Resolve", [](const Context& context, const Text& path) {
        return context.session.resolve(path);
    });
    add<Text>(question, "ResolveEntry", [](const Context& context, const Text& path) {
        return context.session.resolveEntry(path);
    });
    add<Text>(question, "Path", [](const Context& context, const Text& identifier) {
        return context.session.path(identifier);
    });
    add<Text, PageStart>(question, "Page",
                         [](const Context& context, const Text& container, const PageStart& start) {
                             return context.session.page(container, start);
                         });
    add<>(question, "TrashContainers",
          [](const Context& context) { return context.session.trashContainers(); });
    add<Text>(question, "Anchor", [](const Context& context, const Text& container) {
        return context.session.anchor(container);
    });
    add<Text, Anchor>(question, "Changes",
                      [](const Context& context, const Text& container, const Anchor& since) {
                          return context.session.changes(container, since);
                      });
    add<Anchor>(Kind::OfFollowing, "ChangesFollowed",
                [](const Context& context, const Anchor& since) {
                    return context.following->changes(since);
                });
    add<std::vector<Text>>(question, "Thumbnails",
                           [](const Context& context, const std::vector<Text>& identifiers) {
                               return context.session.thumbnails(identifiers);
                           });
    add<ItemTarget>(question, "Open", [](const Context& context, const ItemTarget& target) {
        return context.session.open(target);
    });
    add<>(question, "WaitUntilSettled",
          [](const Context& context) { return context.session.waitUntilSettled(); });
    add<>(question, "Health", [](const Context& context) { return context.session.health(); });
    add<std::chrono::seconds>(question, "LimitForAge",
                              [](const Context& context, std::chrono::seconds age) {
                                  return context.session.limitForAge(age);
                              });
    add<>(question, "Applications",
          [](const Context& context) { return context.session.applications(); });
    add<>(question, "RefreshApplications",
          [](const Context& context) { return context.session.refreshApplications(); });
    add<platform::QSDate>(question, "TrashedBefore",
                          [](const Context& context, const platform::QSDate& date) {
                              return context.session.mutations().trashedBefore(date);
                          });
}

void SessionCalls::addOperations() {
    using Date = platform::QSDate;
    constexpr auto operation = Kind::Operation;
    add<Text, Text>(operation, "MakeDirectory",
                    [](const Context& context, const Text& name, const Text& parent) {
                        return context.session.mutations().makeDirectory(name, parent);
                    });
    add<Text, Text>(operation, "Import",
                    [](const Context& context, const Text& path, const Text& parent) {
                        return context.session.mutations().import(path, parent, context.progress);
                    });
    add<ItemTarget, Text>(operation, "Rename",
                          [](const Context& context, const ItemTarget& target, const Text& name) {
                              return context.session.mutations().rename(target, name);
                          });
    add<ItemTarget, Text, std::optional<Text>>(
        operation, "Move",
        [](const Context& context, const ItemTarget& target, const Text& parent,
           const std::optional<Text>& name) {
            return context.session.mutations().move(target, parent, name, context.progress);
        });
    add<ItemTarget>(operation, "Trash", [](const Context& context, const ItemTarget& target) {
        return context.session.mutations().trash(target, context.progress);
    });
    add<ItemTarget, std::optional<Text>>(
        operation, "Untrash",
        [](const Context& context, const ItemTarget& target, const std::optional<Text>& parent) {
            return context.session.mutations().untrash(target, parent, context.progress);
        });
    add<ItemTarget>(operation, "Remove", [](const Context& context, const ItemTarget& target) {
        return context.session.mutations().remove(target, context.progress);
    });
    add<Date>(operation, "EmptyTrash", [](const Context& context, const Date& date) {
        return context.session.mutations().emptyTrash(date);
    });
    add<>(operation, "DateArrivalsInTrash",
          [](const Context& context) { return context.session.mutations().dateArrivalsInTrash(); });
    add<ItemTarget, std::optional<Date>>(
        operation, "SetLastUsedDate",
        [](const Context& context, const ItemTarget& target, const std::optional<Date>& date) {
            return context.session.setLastUsedDate(target, date);
        });
    add<ItemTarget, std::vector<Text>>(
        operation, "SetTags",
        [](const Context& context, const ItemTarget& target, const std::vector<Text>& labels) {
            return context.session.setTags(target, labels);
        });
    add<ItemTarget, std::optional<std::uint64_t>>(
        operation, "SetFavoriteRank",
        [](const Context& context, const ItemTarget& target,
           const std::optional<std::uint64_t>& rank) {
            return context.session.setFavoriteRank(target, rank);
        });
    add<Text, Override>(operation, "SetOverride",
                        [](const Context& context, const Text& identifier, Override decision) {
                            return context.session.setOverride(identifier, decision);
                        });
}

}  // namespace host

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/session/Session.h"
#include "host/wire/Bus.h"
#include "host/wire/Packing.h"

namespace host {

/// The members of sessionInterface that are answered by a call of a session. Any thread.
class SessionCalls {
  public:
    /// The identifiers of the items whose names match; see Search.
    using Searcher =
        std::function<platform::Result<std::vector<std::string>>(const std::string& text)>;

    /// What a call works with.
    struct Context {
        Session& session;
        Mutations::ProgressHandler progress = {};  ///< of operations
        const Following* following = nullptr;      ///< that a call of a follower names
    };
    using Handler =
        std::function<platform::Result<Bus::Answer>(const Context& context, Unpacker& values)>;
    enum class Kind : std::uint8_t {
        Question,
        Operation,    ///< its number comes first
        OfFollowing,  ///< the number of a following comes first
    };
    struct Member {
        Kind kind = Kind::Question;
        Handler answer;  ///< gets the values behind the number; EINVAL where they do not fit
    };

    explicit SessionCalls(Searcher search);

    /// Null where there is no such member.
    [[nodiscard]] const Member* find(std::string_view name) const;

  private:
    template <typename... Values, typename Function>
    void add(Kind kind, std::string name, Function function);
    void addQuestions();
    void addOperations();

    std::map<std::string, Member, std::less<>> members_;
};

}  // namespace host

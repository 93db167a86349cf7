#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry/EntryReader.h"
#include "platform/registry/QLApplicationProxy.h"
#include "platform/registry/RegistrySources.h"

namespace platform {

/// One reading of the registry: records sorted by identifier.
struct ApplicationSet {
    std::vector<ApplicationRef> applications;
    std::map<std::string, ApplicationRef, std::less<>> renamed;  ///< by former identifier

    /// Also by a former identifier; null where there is none.
    [[nodiscard]] ApplicationRef find(std::string_view identifier) const;
};

/// Works out which applications a number of desktop entries stand for.
class ApplicationSetMaker {
  public:
    using Present = std::function<Result<QSURL>(std::string_view, const std::string&)>;

    ApplicationSetMaker(const RegistrySources& sources, const Present& present)
        : sources_(sources), present_(present) {}

    /// The entries of one folder. REQUIRES: more important folders were added before.
    void add(const ApplicationFolder& folder, std::vector<EntryReader::File> files);
    /// The user's overrides, by identifier.
    [[nodiscard]] ApplicationSet make(
        const std::map<std::string, SupportFlags, std::less<>>& overrides);

  private:
    struct Candidate {
        ApplicationFolder folder;
        EntryReader::File file;
        int rank = 0;  ///< the lowest of an identifier's is taken, of equal ones the first
    };

    [[nodiscard]] std::string containerOf(const std::string& identifier,
                                          const std::vector<std::string>& former) const;

    const RegistrySources& sources_;
    const Present& present_;
    std::map<std::string, bool, std::less<>> taken_;            // desktop-file IDs
    std::map<std::string, Candidate, std::less<>> candidates_;  // by identifier
};

}  // namespace platform

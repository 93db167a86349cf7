#include "host/session/Health.h"

namespace host {

std::vector<std::string> Health::problems() const {
    std::vector<std::string> found;
    if (storageTrouble) found.push_back("the storage cannot be read: " + *storageTrouble);
    if (storeTrouble) found.push_back("identities or history were lost: " + *storeTrouble);
    if (writeTrouble) found.push_back("nothing new can be recorded: " + *writeTrouble);
    if (degradedFolderCount > 0) {
        const auto noun = degradedFolderCount == 1 ? " folder is" : " folders are";
        found.push_back(std::to_string(degradedFolderCount) + noun +
                        " not watched, so changes there are found late");
    }
    return found;
}

}  // namespace host

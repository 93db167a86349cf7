#include "platform/types/TypeRegistry.h"

#include <gio/gio.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/types/MimeNames.h"
#include "platform/types/asciiCase.h"

namespace platform {

namespace {

namespace fs = std::filesystem;
using Declaration = TypeRegistry::Declaration;
using Extensions = std::map<std::string, std::string, std::less<>>;  // to the identifier

bool isMimeType(std::string_view identifier) {
    return identifier.find('/') != identifier.npos;
}

/// The type claimed for the longest end of `name` that `extensions` has; null where none is. A
/// leading dot begins no extension.
const std::string* typeByExtension(const Extensions& extensions, std::string_view name) {
    if (extensions.empty() || name.empty()) return nullptr;
    for (std::size_t dot = name.find('.', 1); dot != name.npos; dot = name.find('.', dot + 1)) {
        const auto found = extensions.find(asciiLower(name.substr(dot + 1)));
        if (found != extensions.end()) return &found->second;
    }
    return nullptr;
}

Declaration declarationFromJson(const nlohmann::json& json) {
    Declaration result;
    json.at("identifier").get_to(result.identifier);
    result.extensions = json.value("extensions", result.extensions);
    result.conformsTo = json.value("conformsTo", result.conformsTo);
    result.isFolder = json.value("folder", false);
    for (std::string& extension : result.extensions) extension = asciiLower(extension);
    return result;
}

Result<std::vector<Declaration>> readDeclarations(const fs::path& path) {
    std::ifstream file(path);
    if (!file) return std::unexpected(errorFromErrno(errno, path.native()));
    try {
        const auto json = nlohmann::json::parse(file);
        std::vector<Declaration> result;
        for (const auto& type : json.at("types")) {
            result.push_back(declarationFromJson(type));
        }
        return result;
    } catch (const nlohmann::json::exception& failure) {
        QSError error = mochaError(QSFileReadCorruptFileError, failure.what());
        error.userInfo.emplace(QSFilePathErrorKey, path.native());
        return std::unexpected(std::move(error));
    }
}

/// Sorted. A folder that is missing has none.
Result<std::vector<fs::path>> declarationFiles(const std::string& folder) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == ".json") files.push_back(it->path());
    }
    if (error && error.value() != ENOENT) {
        return std::unexpected(errorFromErrno(error.value(), folder));
    }
    std::ranges::sort(files);
    return files;
}

}  // namespace

struct TypeRegistry::State {
    void add(Declaration declaration);
    [[nodiscard]] bool conforms(std::string_view identifier, std::string_view ancestor,
                                std::set<std::string_view>& seen) const;

    // Constant once loaded.
    std::map<std::string, Declaration, std::less<>> declarations;
    Extensions ofDirectories;
    Extensions ofFiles;
    const std::string folder{folderTypeIdentifier};

    // Synchronises itself.
    const MimeNames mimeNames;
};

void TypeRegistry::State::add(Declaration declaration) {
    const auto isReplaced = [&](const auto& claim) {
        return claim.second == declaration.identifier;
    };
    std::erase_if(ofDirectories, isReplaced);
    std::erase_if(ofFiles, isReplaced);
    Extensions& extensions = declaration.isFolder ? ofDirectories : ofFiles;
    for (const std::string& extension : declaration.extensions) {
        extensions.insert_or_assign(extension, declaration.identifier);
    }
    std::string identifier = declaration.identifier;
    declarations.insert_or_assign(std::move(identifier), std::move(declaration));
}

bool TypeRegistry::State::conforms(std::string_view identifier, std::string_view ancestor,
                                   std::set<std::string_view>& seen) const {
    if (identifier == ancestor) return true;
    if (isMimeType(identifier) && isMimeType(ancestor) &&
        g_content_type_is_a(std::string(identifier).c_str(), std::string(ancestor).c_str())) {
        return true;
    }
    const auto found = declarations.find(identifier);
    if (found == declarations.end() || !seen.insert(found->first).second) return false;
    return std::ranges::any_of(found->second.conformsTo, [&](const std::string& parent) {
        return conforms(parent, ancestor, seen);
    });
}

TypeRegistry::TypeRegistry() : state_(std::make_shared<State>()) {
    const std::string package(packageTypeIdentifier);
    state_->add({state_->folder, {}, {}, true});
    state_->add({package, {}, {}, true});
    state_->add({"com.quenby.quire", {"quire"}, {package}, true});
    state_->add({"com.quenby.lutebox", {"lutebox"}, {package}, true});
}

std::vector<QSError> TypeRegistry::load(const std::vector<std::string>& folders) {
    std::vector<QSError> errors;
    for (const std::string& folder : folders) {
        const auto files = declarationFiles(folder);
        if (!files) errors.push_back(files.error());
        for (const fs::path& path : files.value_or(std::vector<fs::path>())) {
            auto declarations = readDeclarations(path);
            if (!declarations) {
                errors.push_back(std::move(declarations.error()));
                continue;
            }
            for (Declaration& declaration : *declarations) state_->add(std::move(declaration));
        }
    }
    return errors;
}

const std::string& TypeRegistry::typeOfDirectory(std::string_view name) const {
    const std::string* const declared = typeByExtension(state_->ofDirectories, name);
    return declared ? *declared : state_->folder;
}

const std::string& TypeRegistry::typeOfFile(std::string_view name) const {
    const std::string* const declared = typeByExtension(state_->ofFiles, name);
    return declared ? *declared : state_->mimeNames.typeOfName(name);
}

bool TypeRegistry::conforms(std::string_view identifier, std::string_view ancestor) const {
    std::set<std::string_view> seen;
    return state_->conforms(identifier, ancestor, seen);
}

}  // namespace platform

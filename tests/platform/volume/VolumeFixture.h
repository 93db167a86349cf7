#pragma once

#include <gtest/gtest.h>

#include "platform/tree/TreeLayout.h"
#include "platform/volume/VolumeService.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/ScriptedClocks.h"

namespace tests {

using namespace platform;

/// A storage with a volume service on a scratch folder; the store's folder and the witness's are
/// beside it, so that a test can damage either.
class VolumeFixture : public testing::Test {
  protected:
    using Identity = VolumeService::Identity;

    VolumeFixture() { openFiles(); }

    void openFiles() { files = FileSystem::open(scratch.makeFolder("storage").string()).value(); }
    Result<std::unique_ptr<VolumeService>> tryOpen() {
        VolumeService::Configuration configuration{.files = *files,
                                                   .dataFolder = (scratch / "data").string(),
                                                   .stateFolder = (scratch / "state").string(),
                                                   .followsAtStart = follows};
        using std::chrono::milliseconds;
        configuration.windows = {milliseconds(5), milliseconds(40), milliseconds(200)};
        if (adjust) adjust(configuration);
        return VolumeService::open(std::move(configuration));
    }
    /// Opens the service anew, after the one before has closed.
    void open() {
        service.reset();
        auto opened = tryOpen();
        ASSERT_TRUE(opened) << opened.error().description();
        service = std::move(*opened);
    }

    QSURL url(std::string_view path, std::string_view root = presentedStoragePath) const {
        return QSURL::fileURLWithPath(std::string(root) + "/" + std::string(path));
    }
    std::shared_ptr<const FileAttributes> attributes(
        std::string_view path, std::string_view root = presentedStoragePath) const {
        return files->freshAttributes(url(path, root)).value();
    }
    /// Identifies the objects at these paths together, with document IDs for all but folders.
    std::vector<Identity> identifyAll(const std::vector<std::string>& paths,
                                      std::string_view root = presentedStoragePath) const {
        std::vector<std::shared_ptr<const FileAttributes>> objects;
        std::vector<VolumeService::IdentityRequest> requests;
        for (const std::string_view path : paths) {
            objects.push_back(attributes(path, root));
            requests.push_back({.object = objects.back().get(),
                                .name = path.substr(path.rfind('/') + 1),
                                .wantsDocumentID = !objects.back()->isDirectory(),
                                .result = {}});
        }
        service->identify(requests).value();
        std::vector<Identity> identities;
        for (const auto& request : requests) identities.push_back(request.result);
        return identities;
    }
    Identity identify(std::string_view path, std::string_view root = presentedStoragePath) const {
        return identifyAll({std::string(path)}, root).front();
    }
    /// The path below the storage where the file ID resolves to, or the error's code.
    std::string resolve(std::uint64_t fileID) const {
        const auto found = service->URLForFileID(fileID);
        if (!found) return std::to_string(found.error().code);
        const auto root = presentedStoragePath.size();
        return found->path().size() > root ? found->path().substr(root + 1) : ".";
    }
    std::filesystem::path native(std::string_view path) const { return scratch / "storage" / path; }
    void makeFile(std::string_view path) const { scratch.makeFile("storage/" + std::string(path)); }

    ScratchFolder scratch;
    std::unique_ptr<FileSystem> files;
    std::function<void(VolumeService::Configuration&)> adjust;
    bool follows = false;
    ScriptedClocks clocks;  ///< for a configuration that asks for them
    std::unique_ptr<VolumeService> service;
};

}  // namespace tests

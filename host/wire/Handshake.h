#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "host/wire/Packing.h"

namespace host {

/// What an extension's process is started with. Paths are native; empty ones are as in
/// Platform::Folders.
struct ExtensionSetup {
    std::string storage;
    std::string data;
    std::string state;
    std::string cache;
    std::string config;
    std::string applicationSupport;
    bool acceptsReplacement = false;
    std::uint8_t verbosity = 0;    ///< of the log, as of the command
    std::int32_t hostProcess = 0;  ///< the number of the process that starts it
};

/// What it answers once it can be asked.
struct ExtensionFacts {
    std::string socket;       ///< where the host is to listen; the store's note names it
    std::string cacheFolder;  ///< of the storage, for what the host keeps
};

template <>
struct Fields<ExtensionSetup> {
    static void list(auto& all, auto& setup) {
        all(setup.storage, setup.data, setup.state, setup.cache, setup.config,
            setup.applicationSupport, setup.acceptsReplacement, setup.verbosity, setup.hostProcess);
    }
};

template <>
struct Fields<ExtensionFacts> {
    static void list(auto& all, auto& facts) { all(facts.socket, facts.cacheFolder); }
};

/// The first word of each end of a new connection, ahead of the bus: its length and its bytes.
/// Blocks. EPIPE or ECONNRESET where the other end is closed.
[[nodiscard]] platform::Result<void> sendWord(int socket, platform::QSDataView bytes);
/// ETIMEDOUT, or EBADMSG for more than a mebibyte.
[[nodiscard]] platform::Result<platform::QSData> receiveWord(int socket,
                                                             std::chrono::milliseconds deadline);

}  // namespace host

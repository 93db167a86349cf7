#include "tidewell/common/Logging.h"

#include <limits>

#include "platform/dispatch/Queue.h"
#include "platform/fileprovider/Platform.h"
#include "platform/foundation/fatalError.h"

namespace tidewell {

const Log& logHandle() {
    // Never destroyed: workers may log while the process ends.
    static const Log& handle = *new Log("com.quenby.FileProvider", "tidewell");
    return handle;
}

std::uint64_t LogSection::nextNumber() {
    static const SerialQueue& queue = *new SerialQueue("tidewell.log-section");
    static std::uint64_t counter = 0;  // used only on the queue
    std::uint64_t number = 0;
    queue.sync([&] {
        number = counter;
        if (counter == std::numeric_limits<std::uint64_t>::max()) {
            fatalError("log section numbers are used up");
        }
        ++counter;
    });
    return number;
}

LogSection::~LogSection() {
    logDebug([&] { return "┗" + std::to_string(number_); });
}

void reportSimulatedCrash(std::string_view message) {
    constexpr std::uint32_t exceptionCode = 5;
    const auto filed = Platform::current().crashReports().simulateCrash(exceptionCode, message);
    if (!filed) logError([&] { return "can't file crash report; " + filed.error().description(); });
}

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

}  // namespace tidewell

#pragma once

#include <chrono>
#include <string>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"
#include "platform/icons/QIImage.h"

namespace platform {

/// Starts a program for each picture file, which decodes it under limits of its own and is ended
/// with the answer or at the deadline. So a hostile file costs its own picture and nothing else.
class IconDecoder {
  public:
    /// `program` is a native path.
    IconDecoder(std::string program, std::chrono::milliseconds deadline)
        : program_(std::move(program)), deadline_(deadline) {}

    /// The picture in a square of `side` pixels. ETIMEDOUT at the deadline, EBADMSG where the file
    /// is no picture, or the program failed over it; other errors where it could not be started.
    /// Blocks up to the deadline, and for the end of a killed process. Any thread.
    [[nodiscard]] Result<QIImage> decode(QSDataView file, int side) const;

  private:
    // Constant after construction.
    std::string program_;
    std::chrono::milliseconds deadline_;
};

}  // namespace platform

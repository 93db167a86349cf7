#include "platform/fileprovider/DefaultLog.h"

namespace platform {

const Log& qp_default_log() {
    // Never destroyed: workers may log while the process ends.
    static const Log& log = *new Log("com.quenby.FileProvider", "default");
    return log;
}

}  // namespace platform

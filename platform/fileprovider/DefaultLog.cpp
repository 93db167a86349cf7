#include "platform/fileprovider/DefaultLog.h"

namespace platform {

const Log& qp_default_log() {
    static const Log log("com.quenby.FileProvider", "default");
    return log;
}

}  // namespace platform

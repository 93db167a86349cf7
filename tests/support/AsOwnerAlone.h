#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace tests {

/// While one lives, this thread, and those that it starts, may do only what the owner of a file
/// may, root or not.
class AsOwnerAlone {
  public:
    AsOwnerAlone() {
        (void)syscall(SYS_capget, &header_, before_.data());
        auto without = before_;
        without[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
        (void)syscall(SYS_capset, &header_, without.data());
    }
    ~AsOwnerAlone() { (void)syscall(SYS_capset, &header_, before_.data()); }
    AsOwnerAlone(const AsOwnerAlone&) = delete;
    AsOwnerAlone& operator=(const AsOwnerAlone&) = delete;

  private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> before_{};
};

}  // namespace tests

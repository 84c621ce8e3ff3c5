#pragma once
// SystemSettingsHost: where the system setting commands act. The daemon keeps the default: the real
// root and the system's user accounts (name services). Tests give a temporary tree as the root,
// below which every setting layer finds its fake system files (power supplies, firmware
// variables, /proc/sys, preference folders, run files, programs), and an invented account
// directory whose homes are taken below that root as well. A plain value.

#include <memory>

#include "authorization/UserDirectory.h"
#include "platform/HostRoot.h"

namespace krv {

struct SystemSettingsHost {
  HostRoot root;
  // The accounts of the host's users; null means the system's.
  std::shared_ptr<const auth::UserDirectory> accounts;
};

}  // namespace krv

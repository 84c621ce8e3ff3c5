#pragma once
// KernelValues: live settings of the kernel by name ("net.ipv4.ip_forward"), through /proc/sys.
//
// A name becomes a path below /proc/sys with each "." (and "/", which sysctl also accepts) as a
// folder separator. A name with an empty component ("net..x", ".net", "net.") or a ".." component,
// or with a NUL byte, names no setting: ENOENT, as for a setting that does not exist. The path is
// walked one folder at a time without following any symbolic link, and the value is written as
// its decimal text in one write, which the kernel parses and checks. Errors are those of the
// kernel for the open or the write: ENOENT (no such setting), EACCES (a read-only setting),
// EINVAL or ERANGE (a value the setting does not take), EPERM.
//
// Settings of the network belong to the network namespace of the writing thread; everything else
// is the whole machine's. Stateless and thread-safe.

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "platform/HostRoot.h"

namespace krv {

class KernelValues {
 public:
  static constexpr const char* kSettingsFolder = "/proc/sys";

  explicit KernelValues(HostRoot root = HostRoot());

  Status set(const std::string& name, std::int64_t value) const;

  // The components of the setting's path below /proc/sys, or ENOENT for a name that names none.
  static Result<std::vector<std::string>> pathComponentsOf(const std::string& name);

 private:
  HostRoot m_root;
};

}  // namespace krv

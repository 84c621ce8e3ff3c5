#pragma once
// The confinement a shipped systemd unit declares, read from the unit file itself so that the
// tests that start a service under it follow every change of the unit: the capability bounding
// set (CapabilityBoundingSet=, several lines add up, an empty assignment empties it, a leading
// "~" keeps all but the names), ProtectSystem=strict with its ReadWritePaths= (the read-only
// tree), PrivateNetwork=, and NoNewPrivileges= (which the launch always sets; a unit without it
// is an error here).
// Lines of other sections and other settings are passed over.

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "foundation/Result.h"
#include "tests/support/ServiceProcess.h"

namespace krv::test {

// The number of a capability named as systemd names it ("CAP_SYS_ADMIN"); -1 when unknown.
int capabilityNumber(const std::string& name);

// The confinement of the unit at path; an error for an unreadable file, an unknown capability
// name or a unit without NoNewPrivileges=yes.
Result<ServiceConfinement> unitConfinement(const std::string& path);

// What a test reads back of a started process, to prove it runs confined: the bounding set as the
// kernel shows it (CapBnd in /proc/<pid>/status) and the mask the confinement asks for.
std::uint64_t boundingSetOf(pid_t pid);
std::uint64_t boundingSetMask(const ServiceConfinement& confinement);
bool noNewPrivilegesOf(pid_t pid);
bool sharesNetworkWith(pid_t first, pid_t second);
// True when the mount the process sees at mountPoint (the topmost one there) is read-only.
bool mountReadOnlyFor(pid_t pid, const std::string& mountPoint);

}  // namespace krv::test

#pragma once
// The private sandbox of a test process: a mount namespace of its own in which /run and /tmp are
// fresh, empty tmpfs mounts and /etc and /var/lib are overlays (the real folders below, writes
// going to a private tmpfs). A test may then create sockets under /run, write
// /etc/com.tavorin.system.authority/... or /var/lib/... freely: the host sees none of it, and
// everything vanishes with the process. Processes the test starts inherit the sandbox.
//
// enterPrivateSandbox() must be called once per process before any thread starts (gtest: from an
// Environment's SetUp, or first thing in main). It needs root (CAP_SYS_ADMIN); without it the
// error is EPERM and the caller should skip. Binaries under test must live outside /tmp (the new
// /tmp hides the old one).

#include "foundation/Result.h"

namespace krv::test {

Status enterPrivateSandbox();

// True once enterPrivateSandbox() succeeded in this process.
bool inPrivateSandbox();

}  // namespace krv::test

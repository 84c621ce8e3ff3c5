#pragma once
// Network interface settings: the maximum transfer unit, through SIOCSIFMTU on an AF_INET
// datagram socket (the socket only carries the request; it is never bound).
//
// Interface names are at most 15 bytes (the kernel's 16-byte field keeps a terminating NUL). A
// longer name, or one with a NUL byte in it, cannot name an interface: ENODEV before any request
// is made, since the kernel would otherwise read a shortened name that may name another one.
// Other errors are the kernel's: ENODEV (no such interface), EINVAL (an MTU the interface does not
// take), EPERM. The interface belongs to the network namespace of the calling thread.
// Thread-safe.

#include <cstdint>
#include <string>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv {

// The socket that carries interface requests.
Result<UniqueFd> openInterfaceRequestSocket();
Status setMaximumTransferUnit(int requestSocket, const std::string& interfaceName,
                              std::int32_t mtu);

}  // namespace krv

#include "platform/NetworkInterfaces.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "foundation/System.h"

namespace krv {

Result<UniqueFd> openInterfaceRequestSocket() { return sys::socket(AF_INET, SOCK_DGRAM); }

Status setMaximumTransferUnit(int requestSocket, const std::string& interfaceName,
                              std::int32_t mtu) {
  if (interfaceName.size() >= IFNAMSIZ || interfaceName.find('\0') != std::string::npos) {
    return Error::posix(ENODEV, "interface name");
  }
  ifreq request{};
  std::memcpy(request.ifr_name, interfaceName.data(), interfaceName.size());
  request.ifr_mtu = mtu;
  if (::ioctl(requestSocket, SIOCSIFMTU, &request) != 0) return Error::fromErrno("ioctl");
  return {};
}

}  // namespace krv

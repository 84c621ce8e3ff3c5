// The answer of commands whose family this version of the daemon does not carry.

#include <cerrno>

#include "executor/KRVCommandExecutor.h"

namespace krv {

Error KRVCommandExecutor::commandNotAvailable() {
  Dictionary userInfo;
  userInfo.set(key::kUnderlyingErrorMessage,
               Value("This command is not available in this version of the security component."));
  return Error(std::string(kPosixErrorDomain), ENOSYS, std::move(userInfo));
}

}  // namespace krv

#pragma once
// What securityagentctl says when a command fails: one line naming what could not be done, the
// path concerned and the reason, such as
//
//   securityagentctl: cannot delete '/etc/x': Permission denied (the path goes through a symbolic
//   link a user owns that leads to somebody else's object)
//
// The reason comes from the result's domain and code: POSIX errno texts, the command domain's
// codes, the authorization statuses a refused right carries, and the transport codes of the
// client library. Paths are shown escaped (escapedName), so no name can break the line.

#include <cstdint>
#include <string>

#include "foundation/Error.h"
#include "foundation/Value.h"

namespace krv::ctl {

// A readable explanation of a result code ("" when there is nothing to add).
std::string explainResult(const Error& result);

// The one line for a failed result of command `code` run with `arguments` (without a newline).
// The path is the result's FailingPath, else the one path among the arguments, else none.
std::string describeFailure(std::uint32_t code, const Array& arguments, const Error& result);

}  // namespace krv::ctl

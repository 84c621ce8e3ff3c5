#pragma once
// The command table: for every command code a client may send, the right that guards it, whether
// it needs authorization, which intermediate reports it sends, how many arguments it takes and of
// which kinds, and the comment stored with its right. It also numbers the user information keys
// (foundation/UserInformationKeys.h). Constant data; the consistency checks run once, before the
// first use, and a table that fails them ends the process with status 1. Thread-safe after that
// first use (which the daemon and the client make on their main thread).

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/UserInformationKeys.h"
#include "foundation/Value.h"
#include "protocol/CommandCodes.h"

namespace krv {

// "Any number of arguments, zero included".
inline constexpr std::int64_t kAnyNumberOfArguments = std::numeric_limits<std::int64_t>::max();

struct CommandRecord {
  std::uint32_t code;
  const char* rightName;
  bool needsAuthorization;
  bool sendsProgressReports;
  bool sendsLiveOutputReports;
  std::int64_t numberOfArguments;
  const char* signature;  // type letters S, N, D; null exactly when there are no arguments
  const char* comment;    // null for codes 0 and 1 and the reserved code
};

// The checked table (55 records, code equals index). Runs the checks on first use.
std::span<const CommandRecord> commandTable();
// The record of a code, or null for codes above 54.
const CommandRecord* commandRecord(std::uint32_t code);

// The first failed consistency check of a table as its console message, or nothing when the table
// is consistent. `className` fills the messages' first placeholder.
std::optional<std::string> firstInconsistency(std::span<const CommandRecord> table,
                                              std::string_view className);
// Runs the checks; on failure writes the message to the console log and exits with status 1.
void checkTableOrExit(std::span<const CommandRecord> table, std::string_view className);

// The value type an argument letter requires: S string, N number, D data; nothing otherwise.
std::optional<ValueType> classForArgumentType(char letter);

// User information keys by index (0..17); nothing for any other index.
std::optional<std::string_view> stringForUserInformationKey(std::size_t index);

}  // namespace krv

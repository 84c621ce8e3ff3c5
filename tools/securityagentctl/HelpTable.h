#pragma once
// What securityagentctl tells a user about each command: its arguments with their meaning and
// values, what it returns, an example, what its password authorizes and what to call it when it
// fails. One record per code 0 to 54, in code order (the reserved code 23 included), so that
// `help`, the password prompt and the error lines all say the same thing. A test holds the table
// to the command table: every code present, and argument counts and kinds that agree with each
// command's signature.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace krv::ctl {

// What an argument is, beyond its signature letter: the completion offers file names for paths.
enum class ArgumentKind : std::uint8_t {
  Path,     // S: a file system path (any bytes)
  Text,     // S: a name or a value
  Number,   // N: an integer
  Flag,     // N: 0 is false, anything else true
  Data,     // D: @FILE, hex:DIGITS or the text's own bytes
  Program,  // S: an argument for a program: an option or operand, often a file name
};

struct ArgumentHelp {
  const char* name = nullptr;  // as shown in the usage line: "PATH"; null ends the list
  ArgumentKind kind = ArgumentKind::Text;
  const char* meaning = nullptr;  // what it is and which values it takes
};

inline constexpr std::size_t kMaximumArguments = 5;
// repeatFrom for a command with a fixed number of arguments.
inline constexpr int kNoRepetition = -1;

struct CommandHelp {
  std::uint32_t code = 0;
  const char* summary = nullptr;  // one line for the command overview
  const char* action = nullptr;   // what a password allows: "delete file objects"
  const char* failure = nullptr;  // what could not be done: "delete" ("cannot delete 'PATH'")
  std::array<ArgumentHelp, kMaximumArguments> arguments{};
  // With any number of arguments: the index of the first argument of the group that may be
  // given any number of times (the arguments before it come once); kNoRepetition otherwise.
  int repeatFrom = kNoRepetition;
  bool repeatAtLeastOnce = false;  // the group must be given at least once
  const char* returns = nullptr;   // what a success shows
  const char* example = nullptr;   // the arguments of an example, after the command's name
  const char* notes = nullptr;     // further lines (bit tables), or null
  // The daemon resolves its paths one component at a time and refuses a user's symbolic link
  // that leads to somebody else's object (EACCES).
  bool refusesForeignLinks = false;
};

// The record of a code, or null above 54.
const CommandHelp* commandHelp(std::uint32_t code);
// The number of arguments a record describes.
std::size_t argumentCount(const CommandHelp& help);
// The signature letter an argument kind travels as: S, N or D.
char letterOfKind(ArgumentKind kind);

// "delete-file-objects MODE [PATH ...]".
std::string usageLine(std::uint32_t code);
// `securityagentctl help`: every command with its summary.
std::string helpOverview();
// `securityagentctl help COMMAND`: the whole help of one command.
std::string helpForCommand(std::uint32_t code);

}  // namespace krv::ctl

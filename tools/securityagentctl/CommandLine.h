#pragma once
// The command line of securityagentctl: which command to run (by code or readable name) and its
// arguments, converted to the kinds the command table asks for.
//
//   securityagentctl [options] COMMAND [ARGUMENT ...]
//   securityagentctl help [COMMAND]
//
// COMMAND is a code (0-54) or a readable name derived from the command's right: the right name
// without "com.tavorin." and with "." turned into "-" ("get-version", "count-file-objects"). Each
// argument is converted by the letter of the command's signature: S keeps the argument's bytes
// (text when they are UTF-8, else a byte string); N reads an integer (decimal, or 0x hexadecimal),
// a real (with a "." or an exponent), or true/false/yes/no; D reads "@FILE" (the file's bytes),
// "hex:..." or the text's own bytes.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "platform/SystemPrograms.h"

namespace krv::ctl {

// The folder comparison, whose records the client shows as lines and can save.
inline constexpr std::uint32_t kCompareFoldersCode = 52;

struct Options {
  bool json = false;
  bool quiet = false;
  bool progress = false;  // --progress: progress lines also when the output is no terminal
  bool deauthorize = false;
  bool listCommands = false;
  bool help = false;
  std::optional<std::uint32_t> helpCommand;  // `help COMMAND`: the command to explain
  std::string socketPath;
  std::string saveFile;  // --save FILE: keep a folder comparison's result there
  std::string showFile;  // --show FILE: show a saved comparison instead of running a command
  std::uint32_t commandCode = 0;
  Array arguments;
};

// Parses argv (without the program name). Errors carry a message for the user.
Result<Options> parseCommandLine(const std::vector<std::string>& words);

// The readable name of a command code ("" for the reserved code).
std::string readableName(std::uint32_t code);
std::optional<std::uint32_t> codeForName(const std::string& name);

// Converts one argument text for a signature letter.
Result<Value> convertArgument(const std::string& text, char letter);

std::string usage();
// Every command with its signature letters (explained at the top) and comment; below each command
// that runs a program, the program that runs on this machine (as `programs` finds it) or that none
// does.
std::string commandList(const SystemPrograms& programs = SystemPrograms());

}  // namespace krv::ctl

#include "tools/securityagentctl/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/CommandTable.h"

namespace krv::ctl {

namespace {

Error usageError(const std::string& message) {
  Error error = Error::posix(EINVAL, message);
  return error;
}

Result<Value> parseNumber(const std::string& text) {
  if (text == "true" || text == "yes") return Value::boolean(true);
  if (text == "false" || text == "no") return Value::boolean(false);
  if (text.empty()) return usageError("an empty number");
  errno = 0;
  char* end = nullptr;
  const bool isReal =
      text.find_first_of(".eE") != std::string::npos && text.rfind("0x", 0) == std::string::npos;
  if (isReal) {
    double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || errno == ERANGE) return usageError("not a number: " + text);
    return Value::real(value);
  }
  if (text[0] == '-') {
    long long value = std::strtoll(text.c_str(), &end, 0);
    if (*end != '\0' || errno == ERANGE) return usageError("not a number: " + text);
    return Value::integer(value);
  }
  unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || errno == ERANGE) return usageError("not a number: " + text);
  return Value::unsignedInteger(value);
}

Result<Value> parseData(const std::string& text) {
  if (text.rfind("@", 0) == 0) {
    Result<std::string> contents = sys::readFile(text.substr(1), 1048576);
    if (!contents) return usageError("cannot read " + text.substr(1));
    return Value(Data(contents->begin(), contents->end()));
  }
  if (text.rfind("hex:", 0) == 0) {
    std::string digits = text.substr(4);
    if (digits.size() % 2 != 0) return usageError("odd number of hexadecimal digits");
    Data data;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      char pair[3] = {digits[i], digits[i + 1], '\0'};
      char* end = nullptr;
      unsigned long byte = std::strtoul(pair, &end, 16);
      if (*end != '\0') return usageError("not hexadecimal: " + digits);
      data.push_back(static_cast<std::uint8_t>(byte));
    }
    return Value(std::move(data));
  }
  return Value(Data(text.begin(), text.end()));
}

}  // namespace

std::string readableName(std::uint32_t code) {
  const CommandRecord* record = commandRecord(code);
  if (record == nullptr || record->rightName[0] == '\0') return "";
  std::string name = record->rightName;
  constexpr std::string_view kPrefix = "com.tavorin.";
  if (name.rfind(kPrefix, 0) == 0) name.erase(0, kPrefix.size());
  for (char& c : name) {
    if (c == '.') c = '-';
  }
  return name;
}

std::optional<std::uint32_t> codeForName(const std::string& name) {
  if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos &&
      name.size() <= 3) {
    unsigned long code = std::strtoul(name.c_str(), nullptr, 10);
    if (code < kNumberOfCommandCodes) return static_cast<std::uint32_t>(code);
    return std::nullopt;
  }
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    if (!name.empty() && readableName(code) == name) return code;
  }
  // Short forms for the everyday commands.
  if (name == "version") return kCommandGetVersion;
  if (name == "none") return kCommandNone;
  if (name == "whoami") return kCommandWhoAmI;
  if (name == "shutdown") return kCommandShutdown;
  return std::nullopt;
}

Result<Value> convertArgument(const std::string& text, char letter) {
  switch (letter) {
    case 'S':
      // Command-line arguments are bytes: one that is not UTF-8 travels as a byte string.
      return nameValue(text);
    case 'N':
      return parseNumber(text);
    case 'D':
      return parseData(text);
    default:
      return usageError("this command takes no arguments");
  }
}

Result<Options> parseCommandLine(const std::vector<std::string>& words) {
  Options options;
  std::size_t index = 0;
  for (; index < words.size(); ++index) {
    const std::string& word = words[index];
    if (word == "--") {
      ++index;
      break;
    }
    if (word.size() < 2 || word[0] != '-') break;
    if (word == "--json" || word == "-j") {
      options.json = true;
    } else if (word == "--quiet" || word == "-q") {
      options.quiet = true;
    } else if (word == "--progress") {
      options.progress = true;
    } else if (word == "--deauthorize") {
      options.deauthorize = true;
    } else if (word == "--list" || word == "-l") {
      options.listCommands = true;
    } else if (word == "--help" || word == "-h") {
      options.help = true;
    } else if (word == "--socket") {
      if (++index >= words.size()) return usageError("--socket needs a path");
      options.socketPath = words[index];
    } else if (word == "--save" || word == "--show") {
      if (++index >= words.size() || words[index].empty()) {
        return usageError(word + " needs a file");
      }
      (word == "--save" ? options.saveFile : options.showFile) = words[index];
    } else {
      return usageError("unknown option " + word);
    }
  }
  if (options.help || options.listCommands || !options.showFile.empty()) return options;
  if (index >= words.size()) return usageError("no command given");
  if (words[index] == "help") {
    options.help = true;
    if (index + 2 < words.size()) return usageError("help takes one command");
    if (index + 1 < words.size()) {
      options.helpCommand = codeForName(words[index + 1]);
      if (!options.helpCommand) return usageError("unknown command " + words[index + 1]);
    }
    return options;
  }

  std::optional<std::uint32_t> code = codeForName(words[index]);
  if (!code) return usageError("unknown command " + words[index]);
  options.commandCode = *code;
  if (!options.saveFile.empty() && *code != kCompareFoldersCode) {
    return usageError("--save keeps the result of compare-folders only");
  }
  const CommandRecord* record = commandRecord(*code);
  std::vector<std::string> texts(words.begin() + static_cast<std::ptrdiff_t>(index) + 1,
                                 words.end());
  if (record->numberOfArguments != kAnyNumberOfArguments &&
      static_cast<std::int64_t>(texts.size()) != record->numberOfArguments) {
    const long long wanted = record->numberOfArguments;
    return usageError(format("%s takes %lld argument%s, not %zu", words[index].c_str(), wanted,
                             wanted == 1 ? "" : "s", texts.size()));
  }
  for (std::size_t i = 0; i < texts.size(); ++i) {
    char letter = record->numberOfArguments == kAnyNumberOfArguments ? record->signature[0]
                                                                     : record->signature[i];
    KRV_TRY(Value argument, convertArgument(texts[i], letter));
    options.arguments.push_back(std::move(argument));
  }
  return options;
}

std::string usage() {
  return "usage: securityagentctl [--json] [--quiet | --progress] [--deauthorize] [--socket PATH] "
         "COMMAND [ARGUMENT ...]\n"
         "       securityagentctl [--save FILE] compare-folders FIRST SECOND MARKER COUNT MODE\n"
         "       securityagentctl [--json] --show FILE\n"
         "       securityagentctl --list\n"
         "       securityagentctl help [COMMAND]\n"
         "COMMAND is a code or a name from --list; `securityagentctl help COMMAND` says what its\n"
         "arguments mean. Number arguments take integers, reals or true/false; data arguments\n"
         "take @FILE, hex:DIGITS or plain text.\n";
}

std::string commandList(const SystemPrograms& programs) {
  std::string text =
      "Arguments, one letter each in order: S a text or a path, N a number (0 or 1 for a\n"
      "yes/no), D data (@FILE or hex:DIGITS); S... any number of texts. Each command's\n"
      "arguments are explained by `securityagentctl help COMMAND`.\n\n" +
      format("%2s  %-28s %-6s %s\n", "#", "NAME", "ARGS", "COMMENT");
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    const CommandRecord* record = commandRecord(code);
    std::string name = readableName(code);
    if (name.empty()) continue;
    std::string arguments;
    if (record->numberOfArguments == kAnyNumberOfArguments) {
      arguments = std::string(record->signature) + "...";
    } else if (record->signature != nullptr) {
      arguments = record->signature;
    }
    text += format("%2u  %-28s %-6s %s\n", code, name.c_str(), arguments.c_str(),
                   record->comment ? record->comment : "");
    const bool runsProgram = std::any_of(
        SystemPrograms::programCommands().begin(), SystemPrograms::programCommands().end(),
        [code](const ProgramCommand& command) { return command.code == code; });
    if (!runsProgram) continue;
    if (std::optional<ProgramInvocation> program = programs.programOfCommand(code)) {
      std::string line = escapedName(program->path);
      for (const std::string& argument : program->arguments) line += " " + escapedName(argument);
      text += "    runs " + line + "\n";
    } else {
      text += "    runs no program on this machine\n";
    }
  }
  return text;
}

}  // namespace krv::ctl

// securityagentctl: runs one command of the security component's daemon and shows its progress,
// its live output and its result. Exit status 0 when the command succeeded, 1 when it failed,
// 2 for a usage error, 3 when the daemon cannot be reached.

#include <cstdio>
#include <string>
#include <vector>

#include "protocol/KRVSecurityAgent.h"
#include "tools/securityagentctl/CommandLine.h"
#include "tools/securityagentctl/ResultPrinter.h"

int main(int argc, char** argv) {
  using namespace krv;
  std::vector<std::string> words(argv + 1, argv + argc);
  Result<ctl::Options> options = ctl::parseCommandLine(words);
  if (!options) {
    std::fprintf(stderr, "securityagentctl: %s\n%s", options.error().operation().c_str(),
                 ctl::usage().c_str());
    return 2;
  }
  if (options->help) {
    std::fputs(ctl::usage().c_str(), stdout);
    return 0;
  }
  if (options->listCommands) {
    std::fputs(ctl::commandList().c_str(), stdout);
    return 0;
  }

  std::string socketPath = options->socketPath.empty()
                               ? KRVSecurityAgent::pathForCommunicationSocket()
                               : options->socketPath;
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(socketPath);
  if (!agent) {
    std::fprintf(stderr, "securityagentctl: the security component is not installed (no %s)\n",
                 socketPath.c_str());
    return 3;
  }
  std::unique_ptr<KRVPrivilegedCommand> command = KRVPrivilegedCommand::privilegedCommandWithCode(
      options->commandCode, std::move(options->arguments));
  ctl::ResultPrinter printer(options->json, options->quiet);
  agent->setReportHandler([&printer](const Error& report) { printer.report(report); });
  Error result = agent->executeAtomicPrivilegedCommand(*command, options->deauthorize);
  printer.finish(result);
  return result.code() == 0 && result.domain() != kPosixErrorDomain ? 0 : 1;
}

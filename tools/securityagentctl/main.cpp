// securityagentctl: runs one command of the security component's daemon and shows its progress,
// its live output and its result. Exit status 0 when the command succeeded, 1 when it failed,
// 2 for a usage error, 3 when the daemon cannot be reached.

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/NameValue.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVSecurityAgent.h"
#include "tools/securityagentctl/CommandLine.h"
#include "tools/securityagentctl/ComparisonReport.h"
#include "tools/securityagentctl/HelpTable.h"
#include "tools/securityagentctl/PasswordPrompt.h"
#include "tools/securityagentctl/ResultPrinter.h"

namespace {

using namespace krv;

bool succeeded(const Error& result) {
  return result.code() == 0 && result.domain() != kPosixErrorDomain;
}

// --show FILE: a saved comparison, shown as when it ran.
int showSavedComparison(const ctl::Options& options) {
  Result<ctl::SavedComparison> saved = ctl::readSavedComparison(options.showFile);
  if (!saved) {
    std::fprintf(stderr, "securityagentctl: cannot read %s: %s\n",
                 escapedName(options.showFile).c_str(), saved.error().description().c_str());
    return 1;
  }
  ctl::ResultPrinter printer(options.json, true);
  printer.showComparison(saved->firstFolder, saved->secondFolder);
  Dictionary records;
  records.append(std::string(key::kMismatchList), Value(std::move(saved->records)));
  printer.report(Error(std::string(kTransportErrorDomain), 1, std::move(records)));
  printer.finish(saved->result);
  return succeeded(saved->result) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  Result<ctl::Options> options = ctl::parseCommandLine(words);
  if (!options) {
    std::fprintf(stderr, "securityagentctl: %s\n%s", options.error().operation().c_str(),
                 ctl::usage().c_str());
    return 2;
  }
  if (options->help) {
    std::fputs(options->helpCommand ? ctl::helpForCommand(*options->helpCommand).c_str()
                                    : ctl::helpOverview().c_str(),
               stdout);
    return 0;
  }
  if (options->listCommands) {
    std::fputs(ctl::commandList().c_str(), stdout);
    return 0;
  }
  if (!options->showFile.empty()) return showSavedComparison(*options);

  std::string socketPath = options->socketPath.empty()
                               ? KRVSecurityAgent::pathForCommunicationSocket()
                               : options->socketPath;
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(socketPath);
  if (!agent) {
    std::fprintf(stderr, "securityagentctl: the security component is not installed (no %s)\n",
                 socketPath.c_str());
    return 3;
  }
  ctl::ResultPrinter printer(options->json, options->quiet, options->progress);
  std::optional<ctl::ComparisonArchiveWriter> archive;
  std::optional<Error> archiveFailure;
  if (options->commandCode == ctl::kCompareFoldersCode) {
    // The reports carry snapshots; the arguments are the folders and the mode.
    agent->setResponseClasses(&KRVFileSystemObjectDescription::comparisonClasses());
    const std::string first = nameBytes(options->arguments[0]).value_or(std::string());
    const std::string second = nameBytes(options->arguments[1]).value_or(std::string());
    printer.showComparison(first, second);
    if (!options->saveFile.empty()) {
      const Number* mode = options->arguments[4].asNumber();
      Result<ctl::ComparisonArchiveWriter> writer = ctl::ComparisonArchiveWriter::create(
          options->saveFile, first, second, mode != nullptr ? mode->unsignedIntegerValue() : 0);
      if (!writer) {
        std::fprintf(stderr, "securityagentctl: cannot save to %s: %s\n",
                     escapedName(options->saveFile).c_str(), writer.error().description().c_str());
        return 1;
      }
      archive.emplace(std::move(*writer));
    }
  }
  printer.describeFailuresOf(options->commandCode, options->arguments);
  std::unique_ptr<KRVPrivilegedCommand> command = KRVPrivilegedCommand::privilegedCommandWithCode(
      options->commandCode, std::move(options->arguments));
  ctl::installCommandPrompt(options->commandCode, command->userIdentification());
  agent->setReportHandler([&](const Error& report) {
    printer.report(report);
    const Value* records = report.userInfo().find(key::kMismatchList);
    if (archive && !archiveFailure && records != nullptr && records->asArray() != nullptr) {
      if (Status added = archive->addRecords(*records->asArray()); !added) {
        archiveFailure = std::move(added).error();
      }
    }
  });
  if (printer.showsRecordViews()) {
    agent->setRecordChunkHandler([&](double progress, std::span<const ObjectRecordView> records) {
      printer.reportRecords(progress, records);
    });
  }
  Error result = agent->executeAtomicPrivilegedCommand(*command, options->deauthorize);
  printer.finish(result);
  if (archive && !archiveFailure) {
    if (Status finished = archive->finish(result); !finished) archiveFailure = finished.error();
  }
  if (archiveFailure) {
    std::fprintf(stderr, "securityagentctl: cannot save to %s: %s\n",
                 escapedName(options->saveFile).c_str(), archiveFailure->description().c_str());
    return 1;
  }
  return succeeded(result) ? 0 : 1;
}

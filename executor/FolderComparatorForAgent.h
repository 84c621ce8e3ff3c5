#pragma once
// FolderComparatorForAgent: the folder comparison as the daemon runs it for command 52. It fills
// the hooks of filesystem/FolderComparator.h:
//
// - Each progress report is one message to the client (transport domain, code 1) with
//   "CurrentProgress" and "MismatchList", the records found since the report before; the
//   collection is emptied then, so every record reaches the client exactly once and memory holds
//   the records of one progress interval at most. The final report (1.0) carries the rest.
// - The abort marker is looked at no more than once per progress interval: at the first question
//   after each report (not before the first report, 0.0). A marker seen in a pass ends that pass;
//   the question after the pass finds the marker no longer looked at and answers "go on", so a
//   marker seen in the first pass moves the comparison on to the second pass, which runs on to the
//   next report, and there ends. The run then ends with progress 1.0 and success. The comparison
//   never removes the marker. (A marker is a file, or a link that leads to something.)
// - A message must fit one data block. When the records collected since the last report would
//   pass that, those before the newest go to the client at once, in a message with the progress
//   last reported; the progress sequence itself does not change. A single record that cannot fit
//   a data block on its own (snapshots with thousands of extended attributes) cannot reach the
//   client at all: the comparison stops and the command answers POSIX EFBIG with its path.
// - When the client has gone (a message cannot be written), the comparison stops; no final
//   message is written.
//
// Created per command on the command's thread, given its executor (not owned; it outlives the run)
// and marker path, run once.

#include <cstddef>
#include <optional>
#include <string>

#include "executor/KRVCommandExecutor.h"
#include "filesystem/FolderComparator.h"

namespace krv {

class FolderComparatorForAgent final : public FolderComparator {
 public:
  FolderComparatorForAgent() = default;

  // Keeps both (replacing earlier ones) and stops looking at the marker until the first report.
  void setAgentExecutor(KRVCommandExecutor* executor, std::string abortMarkerPath);

  Error runComparison(const std::string& firstRoot, const std::string& secondRoot,
                      std::uint64_t expectedObjectCount, std::uint64_t mode,
                      Array& collectedDifferences) override;

  bool isClientGone() const { return m_clientGone; }
  // EFBIG with "FailingPath" when a record could not be sent.
  const std::optional<Error>& unsendableRecord() const { return m_unsendableRecord; }

 protected:
  void reportProgressPercentage(double progress) override;
  bool shouldContinueComparisonAccordingToUser() override;
  void didCollectDifference(Array& differences) override;

 private:
  void send(double progress, Array records);

  Array* m_collectedMismatches = nullptr;
  KRVCommandExecutor* m_agentExecutor = nullptr;
  std::string m_abortFilePath;
  bool m_ignoreAbortRequests = false;
  bool m_clientGone = false;
  std::optional<Error> m_unsendableRecord;
  double m_lastProgress = 0.0;
  std::size_t m_collectedBytes = 0;  // of the records collected since the last message
};

}  // namespace krv

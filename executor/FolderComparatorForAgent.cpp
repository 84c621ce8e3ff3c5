#include "executor/FolderComparatorForAgent.h"

#include <cerrno>
#include <utility>

#include "foundation/CborWriter.h"
#include "foundation/DataBlock.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

// What the records of one message may take: a data block's payload less the message around them
// (the error object, its domain, the progress and the keys: well below 256 bytes).
constexpr std::size_t kRecordBudget = kDataBlockMaximumPayload - 256;

std::size_t encodedSize(const Value& record) {
  CborWriter counter;
  counter.writeValue(record, ArchiveForm::Sequential);
  return counter.size();
}

// The path a record is about: its first snapshot's, or the second's when only that one is valid.
std::string recordPath(const Value& record) {
  const Dictionary* fields = record.asDictionary();
  for (std::string_view key : {key::kDescription1, key::kDescription2}) {
    const Value* description = fields != nullptr ? fields->find(key) : nullptr;
    const auto* snapshot =
        description != nullptr ? description->objectAs<KRVFileSystemObjectDescription>() : nullptr;
    if (snapshot != nullptr && snapshot->isValid()) return snapshot->path();
  }
  return std::string();
}

}  // namespace

void FolderComparatorForAgent::setAgentExecutor(KRVCommandExecutor* executor,
                                                std::string abortMarkerPath) {
  m_agentExecutor = executor;
  m_abortFilePath = std::move(abortMarkerPath);
  m_ignoreAbortRequests = true;
}

Error FolderComparatorForAgent::runComparison(const std::string& firstRoot,
                                              const std::string& secondRoot,
                                              std::uint64_t expectedObjectCount, std::uint64_t mode,
                                              Array& collectedDifferences) {
  m_collectedMismatches = &collectedDifferences;
  m_collectedBytes = 0;
  return FolderComparator::runComparison(firstRoot, secondRoot, expectedObjectCount, mode,
                                         collectedDifferences);
}

void FolderComparatorForAgent::send(double progress, Array records) {
  if (m_clientGone || m_agentExecutor == nullptr) return;
  Dictionary userInfo;
  userInfo.append(std::string(key::kCurrentProgress), Value::real(progress));
  userInfo.append(std::string(key::kMismatchList), Value(std::move(records)));
  if (!m_agentExecutor->sendProgressMessage(
          KRVSecurityAgent::transportError(kTransportIntermediateReport, std::move(userInfo)))) {
    m_clientGone = true;
  }
}

void FolderComparatorForAgent::reportProgressPercentage(double progress) {
  Array records;
  if (m_collectedMismatches != nullptr) records = std::exchange(*m_collectedMismatches, Array());
  send(progress, std::move(records));
  m_collectedBytes = 0;
  m_lastProgress = progress;
  m_ignoreAbortRequests = false;
}

void FolderComparatorForAgent::didCollectDifference(Array& differences) {
  const std::size_t size = encodedSize(differences.back());
  if (size > kRecordBudget) {
    Error error = Error::posix(EFBIG, "mismatch record");
    Dictionary userInfo;
    userInfo.append(std::string(key::kFailingPath), nameValue(recordPath(differences.back())));
    m_unsendableRecord = Error(std::string(kPosixErrorDomain), EFBIG, std::move(userInfo));
    differences.pop_back();
    return;
  }
  if (m_collectedBytes + size > kRecordBudget) {
    Value newest = std::move(differences.back());
    differences.pop_back();
    send(m_lastProgress, std::exchange(differences, Array()));
    differences.push_back(std::move(newest));
    m_collectedBytes = 0;
  }
  m_collectedBytes += size;
}

bool FolderComparatorForAgent::shouldContinueComparisonAccordingToUser() {
  if (m_clientGone || m_unsendableRecord) return false;
  if (m_ignoreAbortRequests) return true;
  m_ignoreAbortRequests = true;
  return !(checkPath(m_abortFilePath) && sys::stat(m_abortFilePath).ok());
}

}  // namespace krv

// The executor's messages to the client: progress reports, payload chunks, live program output
// and the final message, each one data block on the response pipe.

#include <poll.h>

#include <cmath>

#include "executor/KRVCommandExecutor.h"
#include "foundation/Assert.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVCommandExecutor";

Error intermediateReport(Dictionary userInfo) {
  return KRVSecurityAgent::transportError(kTransportIntermediateReport, std::move(userInfo));
}

}  // namespace

bool KRVCommandExecutor::sendProgressMessage(const Error& message) {
  if (!m_pipe.valid()) return false;
  return finishIntermediateSend(KRVSecurityAgent::writeObject(&message, m_pipe.get()));
}

bool KRVCommandExecutor::sendPayloadChunk(PayloadChunk& chunk, double progress) {
  if (!m_pipe.valid()) {
    chunk.clear();
    return false;
  }
  Result<std::span<const std::uint8_t>> block = chunk.seal(progress);
  Status sent = block ? writeToPipe(m_pipe.get(), *block) : Status(std::move(block).error());
  chunk.clear();
  return finishIntermediateSend(std::move(sent));
}

// After a failed intermediate send nothing more reaches the client: the pipe is closed, and every
// later send returns false at once.
bool KRVCommandExecutor::finishIntermediateSend(Status sent) {
  if (sent) return true;
  if (m_log) {
    m_log->log(SystemLog::Level::Error, "Could not transfer progress data back to client (%m).",
               sent.error());
  }
  m_pipe.reset();
  setPathOfClientCommunicationPipe(std::nullopt);
  return false;
}

bool KRVCommandExecutor::isClientGone() const {
  if (!m_pipe.valid()) return true;
  pollfd pipe{m_pipe.get(), POLLOUT, 0};
  // The write end of a pipe reports an error once no reader is left.
  Result<std::size_t> ready = sys::poll({&pipe, 1}, 0);
  return ready && *ready == 1 && (pipe.revents & (POLLERR | POLLHUP)) != 0;
}

bool KRVCommandExecutor::sendProgressMessageToClient(double progress) {
  Dictionary userInfo;
  userInfo.set(key::kCurrentProgress, Value::real(progress));
  return sendProgressMessage(intermediateReport(std::move(userInfo)));
}

bool KRVCommandExecutor::sendPayloadArray(const Array& payload, std::string_view key,
                                          std::size_t granularity, double progressOffset) {
  KRV_ASSERT(!key.empty() && granularity != 0 && progressOffset >= 0.0, kUnit);
  PayloadChunk chunk(key);
  auto sendChunk = [&](std::size_t begin, std::size_t end, double progress) {
    for (std::size_t i = begin; i < end; ++i) {
      chunk.add(
          [&](CborWriter& writer) { writer.writeValue(payload[i], ArchiveForm::Sequential); });
    }
    return sendPayloadChunk(chunk, progress);
  };

  const std::size_t count = payload.size();
  if (count <= granularity) return sendChunk(0, count, progressOffset);

  const std::size_t fullChunks = count / granularity;
  const double divisor = static_cast<double>(fullChunks + 1);
  for (std::size_t i = 0; i < fullChunks; ++i) {
    double progress = (static_cast<double>(i) / divisor) * (1.0 - progressOffset) + progressOffset;
    if (!sendChunk(i * granularity, i * granularity + granularity, progress)) return false;
  }
  if (fullChunks * granularity >= count) return true;
  // The remainder carries the offset itself, not the next value of the rising series: clients
  // depend on this exact value.
  return sendChunk(fullChunks * granularity, count, progressOffset);
}

void KRVCommandExecutor::sendFinalMessageToClientPipeAndClose(const CommandResult& message) {
  if (!message || !m_pipe.valid()) return;
  const Error* final = &*message;
  Error replacement = KRVSecurityAgent::transportError(kTransportResultNotTransferable);
  if (final->code() == 0 && !KRVSecurityAgent::isObjectAcceptableForResponse(final)) {
    final = &replacement;
  }
  if (Status sent = KRVSecurityAgent::writeObject(final, m_pipe.get()); !sent && m_log) {
    m_log->log(SystemLog::Level::Error, "Could not transfer data back to client (%m).",
               sent.error());
  }
  m_pipe.reset();
  setPathOfClientCommunicationPipe(std::nullopt);
}

void KRVCommandExecutor::clearSubCommandOutput() {
  m_incomingStdOutData = Data();
  m_incomingStdErrData = Data();
}

void KRVCommandExecutor::receiveTaskOutput(const Data& data, bool isError) {
  // Collected always (the final result carries all output); beyond what one data block can carry
  // the result could not be transferred anyway, so further bytes are not kept.
  Data& collected = isError ? m_incomingStdErrData : m_incomingStdOutData;
  const std::size_t room =
      kMaximumCollectedOutput > collected.size() ? kMaximumCollectedOutput - collected.size() : 0;
  collected.insert(collected.end(), data.begin(),
                   data.begin() + static_cast<std::ptrdiff_t>(std::min(room, data.size())));
  if (!m_isSendingLiveData) return;
  Dictionary userInfo;
  userInfo.set(key::kCurrentProgress, Value::real(0.0));
  userInfo.set(isError ? key::kErrorChannel : key::kOutputChannel, Value(data));
  (void)sendProgressMessage(intermediateReport(std::move(userInfo)));
}

void KRVCommandExecutor::taskDidLaunch(KRVTaskExecutor& task) {
  if (!m_providedStdInData || task.subTaskInputHandle() < 0) return;
  (void)sys::writeAll(task.subTaskInputHandle(), *m_providedStdInData);
}

}  // namespace krv

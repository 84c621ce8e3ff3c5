#pragma once
// KRVSecurityAgent: where client and daemon meet, and the client side of one exchange.
//
// Static members name the daemon and its endpoints (identifiers, installed locations, the request
// socket, the per-request response pipe, dictionary keys, the transport error domain) and move
// archived objects through data blocks on any descriptor. Both sides use them, so the names agree
// by construction. Failures are POSIX errors whose code is the errno value.
//
// An instance is the client library a desktop application links to run commands in the daemon:
// it pre-authorizes a command, sends it on the request socket, reads the acknowledgement, follows
// the response pipe to the final message and cleans up. One instance per thread; it runs with the
// user's rights. pathForResponsePipe() reseeds the process's random generator and is meant for
// the daemon's main thread only.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Archivable.h"
#include "foundation/Coding.h"
#include "foundation/Error.h"
#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/ObjectRecordChunk.h"

namespace krv {

// The transport error domain and its codes.
inline constexpr std::string_view kTransportErrorDomain = "com.tavorin.securityagent";
enum TransportCode : std::int64_t {
  kTransportAccepted = 0,
  kTransportIntermediateReport = 1,
  kTransportPipeNotCreated = 2,
  kTransportRightRemovalFailed = 3,
  kTransportReplyNotAnError = 4,
  kTransportPipeMessageInvalid = 5,
  kTransportCommandInvalid = 6,
  kTransportResultNotTransferable = 7,
};

class KRVSecurityAgent {
 public:
  // ---- Endpoints and paths ----
  static std::string bundleIdentifier() { return "com.tavorin.system.securityagent3"; }
  static std::string legacyBundleIdentifier() { return "com.tavorin.system.securityagent"; }
  // Where a client application carries the daemon's executable: <prefix>/libexec/<identifier>.
  static std::string pathOfBundledExecutable(std::string_view applicationPrefix);
  // The service manager's configuration folder ("/etc/systemd"), or nothing when absent.
  static std::optional<std::string> pathOfComputerLibrary();
  // "<library>/system", or "" without a library folder; likewise for the two descriptions.
  static std::string pathOfDaemonFolder();
  static std::string pathForDaemonDescription();
  static std::string pathForLegacyDaemonDescription();
  static std::string pathForCommunicationSocket();
  // A new, unused "/tmp/<identifier>-<n>.pipe". The generator is seeded with the microseconds of
  // one time reading before every draw, so a taken path is drawn again and again (the daemon's
  // watchdog ends such a request).
  static std::string pathForResponsePipe();
  static std::string_view keyForMasterSocket() { return "MasterSocket"; }
  static std::string_view keyForClientSocket() { return "ClientSocket"; }
  static std::string_view errorDomain() { return kTransportErrorDomain; }
  static Error transportError(std::int64_t code, Dictionary userInfo = {});

  // ---- Data blocks and object transfer ----
  // On any descriptor: the request socket and the response pipe carry the same blocks. EINVAL for
  // no data or object, a negative descriptor or more than one block holds; otherwise as
  // foundation/DataBlock.h says.
  static Status writeData(const Data* data, int fd);
  static Result<Data> readData(int fd);
  static Status writeObject(const Archivable* object, int fd);
  // Reads one object of a class the registry knows; any framing or archive fault is EIO.
  static Result<Value> readObject(
      int fd, const ClassRegistry& classes = KRVPrivilegedCommand::transportClasses());
  // Whether an object fits into one data block (no object is acceptable too).
  static bool isObjectAcceptableForResponse(const Archivable* object);

  // ---- Client session ----
  // Receives every intermediate report (progress, payload chunk, live output) as it arrives.
  using ReportHandler = std::function<void(const Error& report)>;

  // A session, or nothing when no file exists at the request socket's path (the daemon is not
  // installed or not listening). `socketPath` exists for clients of a daemon at another path.
  static std::optional<KRVSecurityAgent> init(
      std::string socketPath = pathForCommunicationSocket());

  void setReportHandler(ReportHandler handler) { m_reportHandler = std::move(handler); }
  // Receives the payload chunks of object records in place of the report handler, as views read
  // straight from the message (protocol/ObjectRecordChunk.h), valid during the call. A chunk in
  // any form other than the daemon's still goes to the report handler.
  using RecordChunkHandler =
      std::function<void(double progress, std::span<const ObjectRecordView> records)>;
  void setRecordChunkHandler(RecordChunkHandler handler) {
    m_recordChunkHandler = std::move(handler);
  }
  // The classes the client accepts on the response pipe (the comparison adds its snapshots).
  void setResponseClasses(const ClassRegistry* classes) { m_responseClasses = classes; }

  // Runs a command to its end and returns its final message (or the failure that ended it).
  Error executeAtomicPrivilegedCommand(KRVPrivilegedCommand& command,
                                       bool deauthorizeAfterCompletion);
  // Sends a command; returns the acknowledgement, or an error.
  Error startExecutionOfPrivilegedCommand(KRVPrivilegedCommand& command,
                                          bool deauthorizeAfterCompletion);
  static std::optional<std::string> pathForResponsePipeFromExecutionAcknowledgeError(
      const Error& acknowledgement);
  static Result<UniqueFd> openRequestSocketAtPath(const std::string& path);
  static Result<UniqueFd> openResponsePipeAtPath(const std::string& path);
  // Reads one message: true for an intermediate report (more follow), false for the final
  // message or a failure; *status receives the message or the failure.
  bool isContinuingCommandExecutionViaPipe(int fd, Error* status) const;
  static void closePipe(UniqueFd fd, const std::string& path);

 private:
  explicit KRVSecurityAgent(std::string socketPath) : m_socketPath(std::move(socketPath)) {}
  // isContinuingCommandExecutionViaPipe for a message already read (or the failure to read one).
  bool isContinuingWithMessage(const Result<Data>& payload, Error* status) const;

  std::string m_socketPath;
  ReportHandler m_reportHandler;
  RecordChunkHandler m_recordChunkHandler;
  const ClassRegistry* m_responseClasses = &KRVPrivilegedCommand::transportClasses();
};

}  // namespace krv

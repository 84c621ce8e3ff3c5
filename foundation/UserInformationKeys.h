#pragma once
// The keys of the dictionaries that travel as an error's user information and in result messages:
// every layer that builds or reads such a dictionary (the file manager's errors, the commands'
// results, the client) names them here, so that the texts agree by construction. The command table
// (protocol/CommandTable.h) gives the first eighteen their index. Constant data.

#include <string_view>

namespace krv::key {

inline constexpr std::string_view kCommandImplementationVersion = "CommandImplementationVersion";
inline constexpr std::string_view kAgentVersionMajor = "AgentVersionMajor";
inline constexpr std::string_view kAgentVersionMinor = "AgentVersionMinor";
inline constexpr std::string_view kAgentVersionBuild = "AgentVersionBuild";
inline constexpr std::string_view kOutputChannel = "OutputChannel";
inline constexpr std::string_view kErrorChannel = "ErrorChannel";
inline constexpr std::string_view kFailingPath = "FailingPath";
inline constexpr std::string_view kUnderlyingErrorCode = "UnderlyingErrorCode";
inline constexpr std::string_view kCurrentProgress = "CurrentProgress";
inline constexpr std::string_view kFileSystemObjects = "FileSystemObjects";
inline constexpr std::string_view kPath = "Path";
inline constexpr std::string_view kType = "Type";
inline constexpr std::string_view kSize = "Size";
inline constexpr std::string_view kModificationDate = "ModificationDate";
inline constexpr std::string_view kPOSIXMode = "POSIXMode";
inline constexpr std::string_view kExistenceInfo = "ExistenceInfo";
inline constexpr std::string_view kUnderlyingErrorMessage = "UnderlyingErrorMessage";
inline constexpr std::string_view kMismatchList = "MismatchList";
// Folder comparison records; not reachable through the command table's index.
inline constexpr std::string_view kMismatches = "Mismatches";
inline constexpr std::string_view kDescription1 = "Description1";
inline constexpr std::string_view kDescription2 = "Description2";

}  // namespace krv::key

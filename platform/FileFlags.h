#pragma once
// The BSD file flags word (st_flags) and the HFS type and creator codes of an object, built on
// what Linux has.
//
// Flags word. The kernel enforces immutability, append-only and no-dump through its inode flags;
// which class of protection (user or system) an object carries is kept in a root-only record, the
// extended attribute "trusted.com.tavorin.flags" (the BSD bits, 32-bit little-endian):
//   UF_NODUMP      0x1      FS_NODUMP_FL
//   UF_IMMUTABLE   0x2      FS_IMMUTABLE_FL, record names the user class
//   UF_APPEND      0x4      FS_APPEND_FL, record names the user class
//   UF_COMPRESSED  0x20     the kernel's "compressed" attribute; read only
//   UF_HIDDEN      0x8000   record only
//   SF_IMMUTABLE   0x20000  FS_IMMUTABLE_FL, record names the system class (or there is none)
//   SF_APPEND      0x40000  FS_APPEND_FL, record names the system class (or there is none)
// A kernel flag without a record - an administrator's `chattr +i` - reads as the system flag.
// Class bits in the record count only while the kernel flag is set. A record that is not exactly
// four bytes long is treated as absent. Other BSD bits are not stored: writing them drops them.
//
// Reading never opens the object (statx attributes plus the record). Writing has chflags
// semantics: the path's final symbolic link is followed (unless a handle says otherwise), only the
// mapped kernel bits are changed and every other kernel bit survives. An immutable or append-only
// object refuses attribute changes, so a write clears the kernel protection first, writes (or
// removes) the record, and sets the kernel flags last; if the record cannot be written the old
// kernel flags are put back. Kernel flags can be changed on regular files and folders only; on any
// other object, or on a file system without inode flags (the kernel's ENOTTY), asking for a
// different kernel state is EOPNOTSUPP, while a change of the record alone (the hidden bit) still
// works wherever the file system keeps trusted attributes.
//
// HFS codes. Bytes 0-3 (type) and 4-7 (creator), big-endian, of the 32-byte value of
// "user.com.apple.FinderInfo". A missing value reads as zeros; a write creates the value with zeros
// around the codes, keeps the other 24 bytes of an existing value, and writes nothing when the
// value would not change. Linux allows user attributes on regular files and folders only: a write
// of non-zero codes to a symbolic link itself (or a FIFO, socket or device) fails with the
// kernel's EPERM.
//
// All functions are thread-safe; errors are POSIX errors with the failed call's name.

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/Result.h"
#include "platform/FileSystemCalls.h"

namespace krv {

inline constexpr std::uint32_t kNoDumpFlag = 0x1;               // UF_NODUMP
inline constexpr std::uint32_t kUserImmutableFlag = 0x2;        // UF_IMMUTABLE
inline constexpr std::uint32_t kUserAppendFlag = 0x4;           // UF_APPEND
inline constexpr std::uint32_t kCompressedFlag = 0x20;          // UF_COMPRESSED
inline constexpr std::uint32_t kHiddenFlag = 0x8000;            // UF_HIDDEN
inline constexpr std::uint32_t kSystemImmutableFlag = 0x20000;  // SF_IMMUTABLE
inline constexpr std::uint32_t kSystemAppendFlag = 0x40000;     // SF_APPEND

inline constexpr std::uint32_t kUserProtectionFlags = kUserImmutableFlag | kUserAppendFlag;
inline constexpr std::uint32_t kSystemProtectionFlags = kSystemImmutableFlag | kSystemAppendFlag;
inline constexpr std::uint32_t kImmutableFlags = kUserImmutableFlag | kSystemImmutableFlag;
inline constexpr std::uint32_t kAppendFlags = kUserAppendFlag | kSystemAppendFlag;
// The bits the flags record holds.
inline constexpr std::uint32_t kFlagsRecordBits = kImmutableFlags | kAppendFlags | kHiddenFlag;

inline constexpr char kFlagsRecordAttribute[] = "trusted.com.tavorin.flags";
inline constexpr char kFinderInfoAttribute[] = "user.com.apple.FinderInfo";
inline constexpr std::size_t kFinderInfoSize = 32;

// The flags word from statx attributes (stx_attributes) and the record, if there is one.
std::uint32_t composeFileFlags(std::uint64_t statxAttributes, std::optional<std::uint32_t> record);
// The kernel inode flags that carry `flags`, starting from the current kernel flags: only the
// immutable, append-only and no-dump bits are changed.
int kernelFlagsFor(std::uint32_t flags, int currentKernelFlags);
// The record that goes with `flags` (0 means: no record).
std::uint32_t flagsRecordFor(std::uint32_t flags);

Result<std::uint32_t> readFileFlags(const std::string& path, LinkHandling links);
// The record alone (nothing when absent or malformed), for callers that have the statx attributes.
Result<std::optional<std::uint32_t>> readFlagsRecord(const std::string& path, LinkHandling links);
Result<std::uint32_t> readFileFlags(const PathHandle& object);

// chflags: follows a final symbolic link of `path`.
Status writeFileFlags(const std::string& path, std::uint32_t flags);
Status writeFileFlags(const PathHandle& object, std::uint32_t flags);

struct HfsCodes {
  std::uint32_t typeCode = 0;
  std::uint32_t creatorCode = 0;
  bool operator==(const HfsCodes&) const = default;
};

Result<HfsCodes> readHfsCodes(const std::string& path, LinkHandling links);
Result<HfsCodes> readHfsCodes(const PathHandle& object);
Status writeHfsCodes(const std::string& path, HfsCodes codes, LinkHandling links);
Status writeHfsCodes(const PathHandle& object, HfsCodes codes);

}  // namespace krv

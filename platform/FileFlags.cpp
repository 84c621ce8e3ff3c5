#include "platform/FileFlags.h"

#include <fcntl.h>
#include <linux/fs.h>

#include <algorithm>
#include <cerrno>

#include "foundation/ByteOrder.h"

namespace krv {
namespace {

constexpr int kKernelMappedFlags = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL;
constexpr int kKernelProtectionFlags = FS_IMMUTABLE_FL | FS_APPEND_FL;

std::optional<std::uint32_t> decodeRecord(const std::optional<Data>& value) {
  if (!value || value->size() != 4) return std::nullopt;
  return loadLittleEndian<std::uint32_t>(value->data());
}

Result<std::optional<std::uint32_t>> readRecord(const char* path, LinkHandling links) {
  KRV_TRY(std::optional<Data> value, sys::getExtendedAttribute(path, kFlagsRecordAttribute, links));
  return decodeRecord(value);
}

// The mapped kernel bits as statx reports them, in inode-flag form.
int kernelFlagsFromAttributes(std::uint64_t attributes) {
  int flags = 0;
  if ((attributes & STATX_ATTR_IMMUTABLE) != 0) flags |= FS_IMMUTABLE_FL;
  if ((attributes & STATX_ATTR_APPEND) != 0) flags |= FS_APPEND_FL;
  if ((attributes & STATX_ATTR_NODUMP) != 0) flags |= FS_NODUMP_FL;
  return flags;
}

Status writeRecord(const PathHandle& object, std::uint32_t record) {
  if (record == 0) {
    return sys::removeExtendedAttribute(object.procPath(), kFlagsRecordAttribute,
                                        LinkHandling::Follow);
  }
  std::uint8_t bytes[4];
  storeLittleEndian(bytes, record);
  return sys::setExtendedAttribute(object.procPath(), kFlagsRecordAttribute, bytes,
                                   LinkHandling::Follow);
}

HfsCodes decodeFinderInfo(const std::optional<Data>& value) {
  HfsCodes codes;
  if (!value) return codes;
  // A value shorter than the two codes reads as if padded with zeros.
  std::uint8_t bytes[8] = {};
  std::copy_n(value->begin(), std::min<std::size_t>(value->size(), sizeof bytes), bytes);
  codes.typeCode = loadBigEndian<std::uint32_t>(bytes);
  codes.creatorCode = loadBigEndian<std::uint32_t>(bytes + 4);
  return codes;
}

}  // namespace

std::uint32_t composeFileFlags(std::uint64_t statxAttributes, std::optional<std::uint32_t> record) {
  std::uint32_t flags = 0;
  if ((statxAttributes & STATX_ATTR_NODUMP) != 0) flags |= kNoDumpFlag;
  if ((statxAttributes & STATX_ATTR_COMPRESSED) != 0) flags |= kCompressedFlag;
  std::uint32_t classes = record.value_or(0);
  if ((statxAttributes & STATX_ATTR_IMMUTABLE) != 0) {
    std::uint32_t recorded = classes & kImmutableFlags;
    flags |= recorded != 0 ? recorded : kSystemImmutableFlag;
  }
  if ((statxAttributes & STATX_ATTR_APPEND) != 0) {
    std::uint32_t recorded = classes & kAppendFlags;
    flags |= recorded != 0 ? recorded : kSystemAppendFlag;
  }
  flags |= classes & kHiddenFlag;
  return flags;
}

int kernelFlagsFor(std::uint32_t flags, int currentKernelFlags) {
  int kernel = currentKernelFlags & ~kKernelMappedFlags;
  if ((flags & kImmutableFlags) != 0) kernel |= FS_IMMUTABLE_FL;
  if ((flags & kAppendFlags) != 0) kernel |= FS_APPEND_FL;
  if ((flags & kNoDumpFlag) != 0) kernel |= FS_NODUMP_FL;
  return kernel;
}

std::uint32_t flagsRecordFor(std::uint32_t flags) { return flags & kFlagsRecordBits; }

Result<std::uint32_t> readFileFlags(const std::string& path, LinkHandling links) {
  KRV_TRY_VOID(checkPath(path));
  int statusFlags = links == LinkHandling::NoFollow ? AT_SYMLINK_NOFOLLOW : 0;
  KRV_TRY(struct statx status, sys::statxAt(AT_FDCWD, path.c_str(), statusFlags, STATX_TYPE));
  KRV_TRY(std::optional<std::uint32_t> record, readRecord(path.c_str(), links));
  return composeFileFlags(status.stx_attributes, record);
}

Result<std::optional<std::uint32_t>> readFlagsRecord(const std::string& path, LinkHandling links) {
  KRV_TRY_VOID(checkPath(path));
  return readRecord(path.c_str(), links);
}

Result<std::uint32_t> readFileFlags(const PathHandle& object) {
  KRV_TRY(std::optional<std::uint32_t> record, readRecord(object.procPath(), LinkHandling::Follow));
  return composeFileFlags(object.status().stx_attributes, record);
}

Status writeFileFlags(const std::string& path, std::uint32_t flags) {
  KRV_TRY(PathHandle object, PathHandle::open(path, LinkHandling::Follow));
  return writeFileFlags(object, flags);
}

Status writeFileFlags(const PathHandle& object, std::uint32_t flags) {
  UniqueFd fd;
  int kernel = 0;
  bool kernelFlagsWritable = false;
  if (object.isRegularFile() || object.isDirectory()) {
    KRV_TRY(fd, object.reopen(O_RDONLY | O_NONBLOCK | O_NOCTTY));
    Result<int> current = sys::getInodeFlags(fd.get());
    if (current) {
      kernel = *current;
      kernelFlagsWritable = true;
    } else if (current.error().code() != ENOTTY && current.error().code() != EOPNOTSUPP) {
      return std::move(current).error();
    }
  }
  if (!kernelFlagsWritable) {
    // Whatever the kernel enforces here cannot be changed; the record alone can.
    kernel = kernelFlagsFromAttributes(object.status().stx_attributes);
  }

  int wanted = kernelFlagsFor(flags, kernel);
  KRV_TRY(std::optional<std::uint32_t> oldRecord,
          readRecord(object.procPath(), LinkHandling::Follow));
  std::uint32_t newRecord = flagsRecordFor(flags);
  bool recordChanges = newRecord != oldRecord.value_or(0);
  if (wanted == kernel && !recordChanges) return {};
  if (wanted != kernel && !kernelFlagsWritable) {
    return Error::posix(EOPNOTSUPP, "ioctl FS_IOC_SETFLAGS");
  }

  // An immutable or append-only inode refuses both attribute changes and (on most file systems)
  // any other flag change while the protection stays: lift it first.
  int current = kernel;
  bool otherBitsChange = ((kernel ^ wanted) & ~kKernelProtectionFlags) != 0;
  if ((kernel & kKernelProtectionFlags) != 0 && (recordChanges || otherBitsChange)) {
    int unprotected = wanted & ~kKernelProtectionFlags;
    KRV_TRY_VOID(sys::setInodeFlags(fd.get(), unprotected));
    current = unprotected;
  }
  if (recordChanges) {
    Status written = writeRecord(object, newRecord);
    if (!written) {
      if (current != kernel) (void)sys::setInodeFlags(fd.get(), kernel);
      return written;
    }
  }
  if (current != wanted) {
    Status set = sys::setInodeFlags(fd.get(), wanted);
    if (!set) {
      if (current != kernel) (void)sys::setInodeFlags(fd.get(), kernel);
      return set;
    }
  }
  return {};
}

Result<HfsCodes> readHfsCodes(const std::string& path, LinkHandling links) {
  KRV_TRY_VOID(checkPath(path));
  KRV_TRY(std::optional<Data> value,
          sys::getExtendedAttribute(path.c_str(), kFinderInfoAttribute, links));
  return decodeFinderInfo(value);
}

Result<HfsCodes> readHfsCodes(const PathHandle& object) {
  KRV_TRY(std::optional<Data> value,
          sys::getExtendedAttribute(object.procPath(), kFinderInfoAttribute, LinkHandling::Follow));
  return decodeFinderInfo(value);
}

Status writeHfsCodes(const std::string& path, HfsCodes codes, LinkHandling links) {
  KRV_TRY(PathHandle object, PathHandle::open(path, links));
  return writeHfsCodes(object, codes);
}

Status writeHfsCodes(const PathHandle& object, HfsCodes codes) {
  KRV_TRY(std::optional<Data> current,
          sys::getExtendedAttribute(object.procPath(), kFinderInfoAttribute, LinkHandling::Follow));
  Data value(kFinderInfoSize, 0);
  if (current) {
    std::copy_n(current->begin(), std::min(current->size(), kFinderInfoSize), value.begin());
  }
  for (int shift = 24, index = 0; shift >= 0; shift -= 8, ++index) {
    value[static_cast<std::size_t>(index)] = static_cast<std::uint8_t>(codes.typeCode >> shift);
    value[static_cast<std::size_t>(index + 4)] =
        static_cast<std::uint8_t>(codes.creatorCode >> shift);
  }
  if (current ? *current == value : codes == HfsCodes{}) return {};
  return sys::setExtendedAttribute(object.procPath(), kFinderInfoAttribute, value,
                                   LinkHandling::Follow);
}

}  // namespace krv

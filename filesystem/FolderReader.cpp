#include "filesystem/FolderReader.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>

#include "foundation/System.h"

namespace krv {
namespace {

constexpr std::size_t kNameOffset = offsetof(struct dirent64, d_name);
constexpr std::size_t kLengthOffset = offsetof(struct dirent64, d_reclen);
constexpr std::size_t kTypeOffset = offsetof(struct dirent64, d_type);

}  // namespace

FolderReader::FolderReader(UniqueFd folder, std::size_t bufferSize)
    : m_folder(std::move(folder)), m_capacity(std::max(bufferSize, kSmallBuffer)) {}

std::optional<FolderReader::Entry> FolderReader::next() {
  for (;;) {
    if (m_ended) return std::nullopt;
    if (m_position >= m_filled) {
      // The buffer is made on first use: a reader that is never read costs no memory.
      if (!m_buffer) m_buffer = std::make_unique<char[]>(m_capacity);
      Result<std::size_t> count =
          sys::readDirectoryEntries(m_folder.get(), std::span<char>(m_buffer.get(), m_capacity));
      if (!count || *count == 0) {
        if (!count) m_error = std::move(count).error();
        m_ended = true;
        return std::nullopt;
      }
      m_filled = *count;
      m_position = 0;
    }

    const char* record = m_buffer.get() + m_position;
    std::size_t room = m_filled - m_position;
    std::uint16_t length = 0;
    if (room < kNameOffset + 1) {
      m_ended = true;
      return std::nullopt;
    }
    std::memcpy(&length, record + kLengthOffset, sizeof length);
    if (length < kNameOffset + 1 || length > room) {
      m_ended = true;
      return std::nullopt;
    }
    const char* nameStart = record + kNameOffset;
    const void* terminator = std::memchr(nameStart, '\0', length - kNameOffset);
    if (terminator == nullptr) {
      m_ended = true;
      return std::nullopt;
    }
    std::string_view name(
        nameStart, static_cast<std::size_t>(static_cast<const char*>(terminator) - nameStart));
    auto type = static_cast<unsigned char>(record[kTypeOffset]);
    m_position += length;
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
      continue;
    }
    return Entry{name, type};
  }
}

Status FolderReader::rewind() {
  if (::lseek(m_folder.get(), 0, SEEK_SET) < 0) return Error::fromErrno("lseek");
  m_position = 0;
  m_filled = 0;
  m_ended = false;
  m_error.reset();
  return {};
}

}  // namespace krv

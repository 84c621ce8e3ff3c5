#include "tools/securityagentctl/ComparisonReport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "filesystem/FolderComparator.h"
#include "filesystem/KRVFileSystemObjectDescription.h"
#include "filesystem/PathNames.h"
#include "foundation/Archiver.h"
#include "foundation/ByteOrder.h"
#include "foundation/CborWriter.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/CommandTable.h"

namespace krv::ctl {

namespace {

constexpr char kChangeLetters[] = "zcapxts";
constexpr std::size_t kChangeLength = sizeof kChangeLetters - 1;
constexpr std::string_view kFirstFolderKey = "FirstFolder";
constexpr std::string_view kSecondFolderKey = "SecondFolder";
constexpr std::string_view kCompareModeKey = "CompareMode";
constexpr std::string_view kDateKey = "Date";
constexpr std::string_view kResultKey = "Result";
// A saved comparison is read whole; this is far more than any comparison a client could keep.
constexpr std::size_t kMaximumSavedSize = std::size_t{1} << 30;

FolderMismatches mismatchesOf(const Set& codes) {
  FolderMismatches mismatches = 0;
  for (const Value& code : codes.elements) {
    const Number* number = code.asNumber();
    if (number != nullptr && number->isInteger() && !number->isNegative() &&
        number->unsignedIntegerValue() <= static_cast<unsigned>(FolderMismatch::MissingInSecond)) {
      mismatches |= static_cast<FolderMismatches>(1u << number->unsignedIntegerValue());
    }
  }
  return mismatches;
}

const KRVFileSystemObjectDescription* snapshotOf(const Dictionary& record, std::string_view key) {
  const Value* value = record.find(key);
  return value != nullptr ? value->objectAs<KRVFileSystemObjectDescription>() : nullptr;
}

}  // namespace

std::string itemizedChanges(const Set& codes) {
  const FolderMismatches mismatches = mismatchesOf(codes);
  if ((mismatches & mismatchBit(FolderMismatch::MissingInSecond)) != 0) {
    return std::string(kChangeLength, '-');
  }
  if ((mismatches & mismatchBit(FolderMismatch::MissingInFirst)) != 0) {
    return std::string(kChangeLength, '+');
  }
  std::string changes(kChangeLength, '.');
  for (std::size_t code = 0; code < kChangeLength; ++code) {
    if ((mismatches & (1u << code)) != 0) changes[code] = kChangeLetters[code];
  }
  return changes;
}

ComparisonLines::ComparisonLines(std::string_view firstFolder, std::string_view secondFolder)
    : m_firstPrefix(pathPrefixBelow(firstFolder)), m_secondPrefix(pathPrefixBelow(secondFolder)) {}

std::string ComparisonLines::line(const Value& record) {
  const Dictionary* fields = record.asDictionary();
  if (fields == nullptr) return "?";
  const Value* codes = fields->find(key::kMismatches);
  const std::string changes =
      itemizedChanges(codes != nullptr && codes->asSet() != nullptr ? *codes->asSet() : Set{});
  // The path below the folders, from the snapshot of the object that exists.
  const KRVFileSystemObjectDescription* first = snapshotOf(*fields, key::kDescription1);
  const KRVFileSystemObjectDescription* second = snapshotOf(*fields, key::kDescription2);
  const KRVFileSystemObjectDescription* shown =
      first != nullptr && first->isValid() ? first : second;
  const std::string& prefix = shown == first ? m_firstPrefix : m_secondPrefix;
  std::string path = shown != nullptr ? shown->path() : std::string();
  if (!prefix.empty() && path.starts_with(prefix)) path.erase(0, prefix.size());
  if (changes[0] == '-') {
    ++m_onlyInFirst;
  } else if (changes[0] == '+') {
    ++m_onlyInSecond;
  } else {
    ++m_changed;
  }
  std::string text = changes + "  " + escapedName(path);
  if (shown != nullptr && shown->objectType() == 3) text += '/';
  return text;
}

std::string ComparisonLines::summary() const {
  const std::uint64_t total = m_onlyInFirst + m_onlyInSecond + m_changed;
  if (total == 0) return "no differences";
  return format(
      "%llu difference%s: %llu only in the first folder, %llu only in the second, %llu "
      "changed",
      static_cast<unsigned long long>(total), total == 1 ? "" : "s",
      static_cast<unsigned long long>(m_onlyInFirst),
      static_cast<unsigned long long>(m_onlyInSecond), static_cast<unsigned long long>(m_changed));
}

ComparisonArchiveWriter::ComparisonArchiveWriter(std::string path, UniqueFd file,
                                                 std::size_t countOffset)
    : m_path(std::move(path)),
      m_partialPath(format("%s.partial-%d", m_path.c_str(), static_cast<int>(::getpid()))),
      m_file(std::move(file)),
      m_countOffset(countOffset) {}

ComparisonArchiveWriter::~ComparisonArchiveWriter() {
  if (m_file) (void)sys::unlink(m_partialPath);
}

Result<ComparisonArchiveWriter> ComparisonArchiveWriter::create(const std::string& path,
                                                                const std::string& firstFolder,
                                                                const std::string& secondFolder,
                                                                std::uint64_t compareMode) {
  const std::string partial = format("%s.partial-%d", path.c_str(), static_cast<int>(::getpid()));
  KRV_TRY(UniqueFd file, sys::open(partial, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0644));
  Data head;
  {
    CborWriter writer(head);
    writer.writeMapHeader(6);
    writer.writeText(kFirstFolderKey);
    writer.writeValue(nameValue(firstFolder), ArchiveForm::Keyed);
    writer.writeText(kSecondFolderKey);
    writer.writeValue(nameValue(secondFolder), ArchiveForm::Keyed);
    writer.writeText(kCompareModeKey);
    writer.writeValue(Value::unsignedInteger(compareMode), ArchiveForm::Keyed);
    writer.writeText(kDateKey);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    writer.writeValue(Value(Date{std::chrono::duration<double>(now).count()}), ArchiveForm::Keyed);
    writer.writeText(key::kMismatchList);
  }
  const std::size_t countOffset = head.size();
  // An array head with an 8-byte count (0x9b), filled in by finish().
  head.push_back(0x9b);
  head.resize(head.size() + 8, 0);
  ComparisonArchiveWriter archive(path, std::move(file), countOffset);
  Status written = sys::writeAll(archive.m_file.get(), head);
  if (!written) return std::move(written).error();
  return archive;
}

Status ComparisonArchiveWriter::addRecords(const Array& records) {
  if (records.empty()) return {};
  Data bytes;
  {
    CborWriter writer(bytes);
    for (const Value& record : records) writer.writeValue(record, ArchiveForm::Keyed);
  }
  KRV_TRY_VOID(sys::writeAll(m_file.get(), bytes));
  m_records += records.size();
  return {};
}

Status ComparisonArchiveWriter::finish(const Error& result) {
  Data tail;
  {
    CborWriter writer(tail);
    writer.writeText(kResultKey);
    writer.writeObject(result, ArchiveForm::Keyed);
  }
  KRV_TRY_VOID(sys::writeAll(m_file.get(), tail));
  std::uint8_t count[8];
  storeBigEndian(count, m_records);
  KRV_TRY(std::size_t filled,
          sys::writeAt(m_file.get(), count, static_cast<off_t>(m_countOffset + 1)));
  if (filled != sizeof count) return Error::posix(EIO, "pwrite");
  KRV_TRY_VOID(sys::rename(m_partialPath, m_path));
  m_file.reset();
  return {};
}

Result<SavedComparison> readSavedComparison(const std::string& path) {
  KRV_TRY(std::string bytes, sys::readFile(path, kMaximumSavedSize));
  KRV_TRY(Value root,
          unarchiveKeyed({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()},
                         KRVFileSystemObjectDescription::comparisonClasses()));
  const Dictionary* fields = root.asDictionary();
  if (fields == nullptr) return archiveFault("a saved comparison is a dictionary");
  SavedComparison saved;
  const Value* first = fields->find(kFirstFolderKey);
  const Value* second = fields->find(kSecondFolderKey);
  const Value* records = fields->find(key::kMismatchList);
  const Value* result = fields->find(kResultKey);
  if (first == nullptr || !isNameValue(*first) || second == nullptr || !isNameValue(*second) ||
      records == nullptr || records->asArray() == nullptr || result == nullptr ||
      result->objectAs<Error>() == nullptr) {
    return archiveFault("not a saved comparison");
  }
  saved.firstFolder = *nameBytes(*first);
  saved.secondFolder = *nameBytes(*second);
  saved.records = *records->asArray();
  saved.result = *result->objectAs<Error>();
  if (const Value* mode = fields->find(kCompareModeKey); mode && mode->asNumber()) {
    saved.compareMode = mode->asNumber()->unsignedIntegerValue();
  }
  if (const Value* date = fields->find(kDateKey); date && date->asDate())
    saved.date = *date->asDate();
  return saved;
}

}  // namespace krv::ctl

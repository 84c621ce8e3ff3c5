#include "foundation/Archiver.h"

#include "foundation/CborReader.h"
#include "foundation/CborWriter.h"

namespace krv {

namespace {

// Most archives are acknowledgements and reports of a few hundred bytes; larger ones grow the
// buffer geometrically.
constexpr std::size_t kInitialArchiveCapacity = 512;

Data archiveValue(const Value& root, ArchiveForm form) {
  Data output;
  output.reserve(kInitialArchiveCapacity);
  {
    // The writer settles the size of the output when it goes.
    CborWriter writer(output);
    writer.writeValue(root, form);
  }
  return output;
}

Data archiveObject(const Archivable& root, ArchiveForm form) {
  Data output;
  output.reserve(kInitialArchiveCapacity);
  {
    CborWriter writer(output);
    writer.writeObject(root, form);
  }
  return output;
}

}  // namespace

Data archiveSequential(const Value& root) { return archiveValue(root, ArchiveForm::Sequential); }

Data archiveSequential(const Archivable& root) {
  return archiveObject(root, ArchiveForm::Sequential);
}

Data archiveKeyed(const Value& root) { return archiveValue(root, ArchiveForm::Keyed); }

Data archiveKeyed(const Archivable& root) { return archiveObject(root, ArchiveForm::Keyed); }

std::size_t sequentialArchiveSize(const Archivable& root) {
  CborWriter counter;
  counter.writeObject(root, ArchiveForm::Sequential);
  return counter.size();
}

void appendSequentialArchive(const Archivable& root, Data& output) {
  CborWriter writer(output);
  writer.writeObject(root, ArchiveForm::Sequential);
}

Result<Value> unarchiveSequential(std::span<const std::uint8_t> payload,
                                  const ClassRegistry& classes) {
  return CborReader(payload, classes, ArchiveForm::Sequential).readRoot();
}

Result<Value> unarchiveKeyed(std::span<const std::uint8_t> payload, const ClassRegistry& classes) {
  return CborReader(payload, classes, ArchiveForm::Keyed).readRoot();
}

}  // namespace krv

#include "foundation/Archiver.h"

#include "foundation/CborReader.h"
#include "foundation/CborWriter.h"

namespace krv {

namespace {

// Most archives are acknowledgements and reports of a few hundred bytes; larger ones grow the
// buffer geometrically.
constexpr std::size_t kInitialArchiveCapacity = 512;

// An archive written by `write` into a fresh buffer.
template <class Write>
Data archiveWith(Write write) {
  Data output;
  output.reserve(kInitialArchiveCapacity);
  {
    // The writer settles the size of the output when it goes.
    CborWriter writer(output);
    write(writer);
  }
  return output;
}

Data archiveValue(const Value& root, ArchiveForm form) {
  return archiveWith([&](CborWriter& writer) { writer.writeValue(root, form); });
}

Data archiveObject(const Archivable& root, ArchiveForm form) {
  return archiveWith([&](CborWriter& writer) { writer.writeObject(root, form); });
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

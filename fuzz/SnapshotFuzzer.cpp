// Feeds arbitrary bytes to the readers of folder comparison results, as a client meets them: the
// messages of a comparison (sequential archives whose records hold object snapshots) and a saved
// comparison (a keyed archive that anybody may have written), read with the classes a comparison
// carries. Properties: every snapshot that decodes archives in both forms to a snapshot equal to
// itself, every question and text a client asks of one (the equality questions, the description,
// the sorted attributes) holds on it, and whatever a saved comparison holds prints as report
// lines without failing.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/Archiver.h"
#include "foundation/NameValue.h"
#include "tools/securityagentctl/ComparisonReport.h"

namespace {

using krv::KRVFileSystemObjectDescription;
using Snapshot = KRVFileSystemObjectDescription;

void check(bool condition) {
  if (!condition) std::abort();
}

void checkArchivesToItself(const Snapshot& snapshot) {
  const krv::ClassRegistry& classes = Snapshot::comparisonClasses();
  for (bool keyed : {false, true}) {
    const krv::Value value{krv::ObjectRef(std::make_shared<Snapshot>(snapshot))};
    const krv::Data bytes = keyed ? krv::archiveKeyed(value) : krv::archiveSequential(value);
    krv::Result<krv::Value> back =
        keyed ? krv::unarchiveKeyed(bytes, classes) : krv::unarchiveSequential(bytes, classes);
    check(back.ok());
    const Snapshot* again = back->objectAs<Snapshot>();
    check(again != nullptr && *again == snapshot);
  }
}

void exercise(const Snapshot& snapshot, const Snapshot* previous) {
  checkArchivesToItself(snapshot);
  // Questions with themselves answer yes; with another, anything but a failure.
  check(snapshot.hasPOSIXPermissionsEqualTo(&snapshot));
  check(snapshot.hasAccessControlListEqualTo(&snapshot));
  check(snapshot.hasExtendedAttributesEqualTo(&snapshot, false));
  check(snapshot.hasAttributesEqualTo(&snapshot));
  check(snapshot.hasStatusChangeTimeEqualTo(&snapshot));
  check(!snapshot.hasPOSIXPermissionsEqualTo(nullptr));
  (void)snapshot.hasContentsEqualTo(&snapshot, false);
  if (previous != nullptr) {
    (void)snapshot.hasExtendedAttributesEqualTo(previous, true);
    (void)snapshot.hasAccessControlListEqualTo(previous);
    (void)snapshot.hasContentsEqualTo(previous, false);
  }
  (void)snapshot.description();
  (void)snapshot.objectTypeAsNSFileType();
  (void)snapshot.isAppleDoubleFile();
  (void)snapshot.creationTime();
  const krv::Array sorted = snapshot.sortedExtendedAttributesDescriptions();
  check(sorted.size() == snapshot.extendedAttributes().size());
  for (const krv::Value& entry : sorted) {
    check(Snapshot::nameOfExtendedAttributeInDescription(entry.asDictionary()).has_value());
  }
}

// Every snapshot in the value, wherever a record or a list holds it.
void visit(const krv::Value& value, const Snapshot*& previous, int depth) {
  if (depth > 80) return;
  if (const Snapshot* snapshot = value.objectAs<Snapshot>()) {
    exercise(*snapshot, previous);
    previous = snapshot;
    return;
  }
  if (const krv::Array* array = value.asArray()) {
    for (const krv::Value& element : *array) visit(element, previous, depth + 1);
  } else if (const krv::Dictionary* dictionary = value.asDictionary()) {
    for (const auto& [key, element] : *dictionary) visit(element, previous, depth + 1);
  } else if (const krv::Error* error = value.objectAs<krv::Error>()) {
    for (const auto& [key, element] : error->userInfo()) visit(element, previous, depth + 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const krv::ClassRegistry& classes = Snapshot::comparisonClasses();
  for (bool keyed : {false, true}) {
    krv::Result<krv::Value> value =
        keyed ? krv::unarchiveKeyed(bytes, classes) : krv::unarchiveSequential(bytes, classes);
    const Snapshot* previous = nullptr;
    if (value) visit(*value, previous, 0);
  }

  krv::Result<krv::ctl::SavedComparison> saved = krv::ctl::savedComparisonFromArchive(bytes);
  if (saved) {
    krv::ctl::ComparisonLines lines(saved->firstFolder, saved->secondFolder);
    for (const krv::Value& record : saved->records) check(!lines.line(record).empty());
    check(!lines.summary().empty());
  }
  return 0;
}

// Feeds arbitrary bytes to the reader of the portable access control list form, as a hostile
// client's request or a tampered record would. Whatever the reader accepts must write back to the
// very bytes it came from, and every reading and editing operation must hold on every entry: the
// identity text parses back to the same UUID, a predefined tag that is set reads back as that tag.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>

#include "filesystem/KRVAccessControlList.h"
#include "foundation/Uuid.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void exercise(std::span<const std::uint8_t> bytes, krv::AclObjectKind kind) {
  krv::Result<krv::KRVAccessControlList> read =
      krv::KRVAccessControlList::fromExternalRepresentation(bytes, kind);
  if (!read) return;
  krv::KRVAccessControlList& list = *read;
  check(list.count() <= krv::kAclMaximumEntries);
  check(bytes.size() == krv::kAclHeaderSize + krv::kAclEntrySize * list.count());
  const krv::Data form = list.externalRepresentation();
  check(krv::Data(bytes.begin(), bytes.end()) == form);
  check(list.isEqualToAccessControlList(list));

  krv::KRVAccessControlList edited = list;
  for (std::size_t index = 0; index <= list.count(); ++index) {
    const std::optional<std::string> text = list.uuidStringOfIdentity(index);
    check(text.has_value() == (index < list.count()));
    if (text) check(edited.setUuidString(*text, index));
    check(list.predefinedPermissionTag(index) <= krv::PermissionsTag::Custom);
    (void)list.isDenyType(index);
    (void)list.isInherited(index);
    for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
      (void)list.hasPermission(bit, index);
      (void)list.hasInheritanceFlag(bit, index);
    }
  }
  check(edited.externalRepresentation() == form);

  for (std::size_t index = 0; index < edited.count(); ++index) {
    const auto tag = static_cast<krv::PermissionsTag>(index % 5);
    check(edited.setPredefinedPermissionsTag(tag, index));
    check(edited.predefinedPermissionTag(index) == tag);
    check(edited.setDenyType(index % 2 == 0, index));
  }
  // Edits never break the byte form.
  check(krv::KRVAccessControlList::fromExternalRepresentation(edited.externalRepresentation(), kind)
            .ok());
  while (edited.count() > 0) check(edited.removeEntry(edited.count() / 2));
  check(!edited.removeEntry(0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  exercise(bytes, krv::AclObjectKind::File);
  exercise(bytes, krv::AclObjectKind::Directory);
  return 0;
}

#include "filesystem/KRVAccessControlList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/AccessControlListStorage.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Written by hand from the published layout, field by field; never produced by the code under test.
const Bytes kEmptyList = {
    0x01, 0x2c, 0xc1, 0x6d,                                      // magic
    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // owner GUID
    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // group GUID
    0,    0,    0,    0,                                         // entry count
    0,    0,    0,    0,                                         // flags
};

const Bytes kThreeEntries = {
    0x01, 0x2c, 0xc1, 0x6d,                          // magic
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // owner GUID
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // group GUID
    0, 0, 0, 3,                                      // entry count
    0, 0, 0, 0,                                      // flags
    // user 501, allow | inherited | file inherit, the read set
    0xFF, 0xFF, 0xEE, 0xEE, 0xDD, 0xDD, 0xCC, 0xCC, 0xBB, 0xBB, 0xAA, 0xAA, 0x00, 0x00, 0x01, 0xF5,
    0x00, 0x00, 0x00, 0x31,  //
    0x00, 0x00, 0x0A, 0x8A,  //
    // group 20, deny | directory inherit, write data
    0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF, 0x00, 0x00, 0x00, 0x14,
    0x00, 0x00, 0x00, 0x42,  //
    0x00, 0x00, 0x00, 0x04,  //
    // an opaque identity, deny with an unknown flag, synchronize
    0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0x0F, 0xED, 0xCB, 0xA9, 0x87, 0x65, 0x43, 0x21,
    0x40, 0x00, 0x00, 0x02,  //
    0x00, 0x10, 0x00, 0x00,  //
};

KRVAccessControlList listOf(std::vector<ExtendedAclEntry> entries,
                            AclObjectKind kind = AclObjectKind::File) {
  ExtendedAcl list;
  list.entries = std::move(entries);
  std::optional<KRVAccessControlList> model = KRVAccessControlList::withSystemAcl(list, kind);
  EXPECT_TRUE(model.has_value());
  return model ? *model : KRVAccessControlList(kind);
}

KRVAccessControlList oneEntry(std::uint32_t permissions, AclObjectKind kind) {
  return listOf({{userUuid(501), AclEntryKind::Allow, 0, permissions}}, kind);
}

TEST(KRVAccessControlListTest, ReadsTheByteFormAndWritesTheSameBytes) {
  Result<KRVAccessControlList> list =
      KRVAccessControlList::fromExternalRepresentation(kThreeEntries, AclObjectKind::Directory);
  ASSERT_TRUE(list.ok());
  const Uuid opaque = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0,
                       0x0F, 0xED, 0xCB, 0xA9, 0x87, 0x65, 0x43, 0x21};
  ExtendedAcl expected;
  expected.entries = {
      {userUuid(501), AclEntryKind::Allow, kAclEntryInherited | kAclEntryFileInherit, kAclReadSet},
      {groupUuid(20), AclEntryKind::Deny, kAclEntryDirectoryInherit, kAclWriteData},
      {opaque, AclEntryKind::Deny, 0x40000000, kAclSynchronize},
  };
  EXPECT_EQ(list->systemAcl(), expected);
  EXPECT_EQ(list->uuidStringOfIdentity(0), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5");
  EXPECT_EQ(list->uuidStringOfIdentity(1), "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000014");
  EXPECT_EQ(list->uuidStringOfIdentity(2), "12345678-9ABC-DEF0-0FED-CBA987654321");
  EXPECT_EQ(gidOfUuid(expected.entries[1].identity), 20U);
  EXPECT_EQ(uidOfUuid(expected.entries[1].identity), std::nullopt);
  EXPECT_TRUE(list->isInherited(0) && list->isDenyType(1) && !list->isDenyType(0));

  // Every bit survives, the unknown flag and foreign header fields included.
  EXPECT_EQ(list->externalRepresentation(), kThreeEntries);
  EXPECT_EQ(KRVAccessControlList().externalRepresentation(), kEmptyList);
  Bytes foreign = kEmptyList;
  foreign[4] = 0x11;   // owner GUID
  foreign[35] = 0x22;  // group GUID
  foreign[43] = 0x01;  // list flags
  Result<KRVAccessControlList> foreignList =
      KRVAccessControlList::fromExternalRepresentation(foreign, AclObjectKind::File);
  ASSERT_TRUE(foreignList.ok());
  EXPECT_EQ(foreignList->externalRepresentation(), foreign);
}

TEST(KRVAccessControlListTest, RefusesMalformedByteForms) {
  auto patched = [](Bytes bytes, std::size_t offset, std::uint8_t value) {
    bytes.at(offset) = value;
    return bytes;
  };
  auto withEntries = [&](std::uint8_t count) {
    Bytes bytes = patched(kEmptyList, 39, count);
    for (int i = 0; i < count; ++i) {
      bytes.insert(bytes.end(), kThreeEntries.begin() + 44, kThreeEntries.begin() + 68);
    }
    return bytes;
  };
  const Bytes cases[] = {
      {},
      Bytes(kEmptyList.begin(), kEmptyList.end() - 1),        // short header
      patched(kEmptyList, 3, 0x6e),                           // magic
      patched(patched(kEmptyList, 0, 0x6d), 3, 0x01),         // magic in the wrong order
      patched(kEmptyList, 39, 1),                             // an entry missing
      patched(kThreeEntries, 39, 2),                          // an entry too many
      Bytes(kThreeEntries.begin(), kThreeEntries.end() - 1),  // a cut entry
      patched(kThreeEntries, 44 + 19, 0x30),                  // kind 0
      patched(kThreeEntries, 44 + 24 + 19, 0x43),             // kind 3
      patched(kThreeEntries, 44 + 48 + 19, 0x0F),             // kind 15
      patched(kEmptyList, 36, 0xFF),                          // a count beyond any length
      withEntries(129),
  };
  int index = 0;
  for (const Bytes& bytes : cases) {
    Result<KRVAccessControlList> list =
        KRVAccessControlList::fromExternalRepresentation(bytes, AclObjectKind::File);
    ASSERT_FALSE(list.ok()) << "case " << index;
    EXPECT_EQ(list.error().code(), EINVAL) << "case " << index;
    ++index;
  }
  EXPECT_TRUE(
      KRVAccessControlList::fromExternalRepresentation(withEntries(128), AclObjectKind::File).ok());

  // Lists built in memory must have a byte form too.
  ExtendedAcl invalid;
  invalid.entries.resize(129);
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(invalid, AclObjectKind::File));
  invalid.entries = {{userUuid(1), static_cast<AclEntryKind>(3), 0, 0}};
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(invalid, AclObjectKind::File));
  invalid.entries = {{userUuid(1), AclEntryKind::Allow, 0x1, 0}};
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(invalid, AclObjectKind::File));
}

TEST(KRVAccessControlListTest, ClassifiesPermissionsIntoPredefinedTags) {
  using enum PermissionsTag;
  constexpr auto kFile = AclObjectKind::File;
  constexpr auto kFolder = AclObjectKind::Directory;
  struct Case {
    AclObjectKind kind;
    std::uint32_t permissions;
    PermissionsTag expected;
  } cases[] = {
      {kFile, kAclReadSet | kAclSynchronize, ReadOnly},
      {kFile, kAclReadSet | kAclFileWriteSet | kAclDeleteChild, ReadWrite},
      {kFolder, kAclReadSet | kAclFileWriteSet, Custom},  // 0x40 missing on a folder
      {kFolder, kAclReadSet | kAclDirectoryWriteSet, ReadWrite},
      {kFile, kAclReadSet | kAclFileWriteSet | kAclWriteSecurity, Custom},
      {kFile, kAclWriteSecurity, Custom},
      {kFile, kAclChangeOwner | kAclReadSet, Custom},
      {kFile, kAclReadSet | kAclFileWriteSet | kAclAdministerSet, FullControl},
      {kFile, kAclAdministerSet, Custom},
      {kFolder, kAclDirectoryWriteSet, WriteOnly},
      {kFile, kAclFileWriteSet | kAclReadData, Custom},
      {kFile, 0, None},
      {kFile, kAclSynchronize | kAclDeleteChild, None},  // belong to no set of a file
      {kFile, kAclReadSet & ~kAclReadSecurity, Custom},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(oneEntry(c.permissions, c.kind).predefinedPermissionTag(0), c.expected)
        << std::hex << c.permissions << (c.kind == kFolder ? " folder" : " file");
  }
  // A bad index answers full control, on purpose.
  EXPECT_EQ(oneEntry(0, kFile).predefinedPermissionTag(1), FullControl);
  EXPECT_EQ(KRVAccessControlList().predefinedPermissionTag(0), FullControl);
}

TEST(KRVAccessControlListTest, SettingATagReplacesEveryPermissionWithItsSets) {
  KRVAccessControlList file = oneEntry(kAclReadData | kAclSynchronize, AclObjectKind::File);
  ASSERT_TRUE(file.setPredefinedPermissionsTag(PermissionsTag::WriteOnly, 0));
  EXPECT_EQ(file.systemAcl().entries[0].permissions, 0x4U | 0x20 | 0x10 | 0x100 | 0x400);

  KRVAccessControlList folder = oneEntry(kAclSynchronize, AclObjectKind::Directory);
  ASSERT_TRUE(folder.setPredefinedPermissionsTag(PermissionsTag::WriteOnly, 0));
  EXPECT_EQ(folder.systemAcl().entries[0].permissions, 0x4U | 0x20 | 0x40 | 0x10 | 0x100 | 0x400);

  for (AclObjectKind kind : {AclObjectKind::File, AclObjectKind::Directory}) {
    KRVAccessControlList list = oneEntry(0xFFFFFFFF, kind);
    for (PermissionsTag tag :
         {PermissionsTag::FullControl, PermissionsTag::ReadWrite, PermissionsTag::ReadOnly,
          PermissionsTag::WriteOnly, PermissionsTag::None}) {
      ASSERT_TRUE(list.setPredefinedPermissionsTag(tag, 0));
      EXPECT_EQ(list.predefinedPermissionTag(0), tag);
    }
    EXPECT_EQ(list.systemAcl().entries[0].permissions, 0U);
  }

  KRVAccessControlList list = oneEntry(kAclReadData, AclObjectKind::File);
  EXPECT_FALSE(list.setPredefinedPermissionsTag(PermissionsTag::Custom, 0));
  EXPECT_FALSE(list.setPredefinedPermissionsTag(static_cast<PermissionsTag>(9), 0));
  EXPECT_FALSE(list.setPredefinedPermissionsTag(PermissionsTag::ReadOnly, 1));
  EXPECT_EQ(list.systemAcl().entries[0].permissions, kAclReadData);
}

TEST(KRVAccessControlListTest, EditsChangeOnlyTheEntryTheyName) {
  const ExtendedAclEntry first{userUuid(1), AclEntryKind::Allow, 0, 0};
  KRVAccessControlList list = listOf({first, {groupUuid(2), AclEntryKind::Allow, 0, kAclReadData}});
  EXPECT_TRUE(list.setDenyType(true, 1));
  EXPECT_TRUE(list.setPermission(kAclExecute, true, 1));
  EXPECT_TRUE(list.setPermission(kAclReadData, false, 1));
  EXPECT_TRUE(list.setInheritanceFlag(kAclEntryOnlyInherit, true, 1));
  EXPECT_TRUE(list.setUuidString("{ffffeeee-dddd-cccc-bbbb-aaaa00001092}", 1));
  const ExtendedAclEntry second{userUuid(0x1092), AclEntryKind::Deny, kAclEntryOnlyInherit,
                                kAclExecute};
  EXPECT_EQ(list.systemAcl().entries, (std::vector<ExtendedAclEntry>{first, second}));

  // Refused: several bits or none, a flag in the kind bits, text that is no UUID, a bad index.
  EXPECT_FALSE(list.setPermission(kAclReadData | kAclExecute, true, 0));
  EXPECT_FALSE(list.setPermission(0, true, 0));
  EXPECT_FALSE(list.setInheritanceFlag(0x2, true, 0));
  EXPECT_FALSE(list.setUuidString("", 0));
  EXPECT_FALSE(list.setUuidString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA0000109", 0));
  EXPECT_FALSE(list.setDenyType(true, 2));
  EXPECT_EQ(list.systemAcl().entries, (std::vector<ExtendedAclEntry>{first, second}));

  EXPECT_FALSE(list.removeEntry(2));
  EXPECT_TRUE(list.removeEntry(0));
  EXPECT_EQ(list.systemAcl().entries, std::vector<ExtendedAclEntry>{second});
  EXPECT_TRUE(list.removeAllEntries());
  EXPECT_EQ(list.count(), 0U);
}

TEST(KRVAccessControlListTest, ListsAreEqualOnlyWithTheSameEntriesInTheSameOrder) {
  const ExtendedAclEntry a{userUuid(1), AclEntryKind::Allow, 0, kAclReadData};
  const ExtendedAclEntry b{groupUuid(1), AclEntryKind::Allow, 0, kAclReadData};
  EXPECT_TRUE(listOf({a, b}).isEqualToAccessControlList(listOf({a, b})));
  EXPECT_FALSE(listOf({a, b}).isEqualToAccessControlList(listOf({b, a})));
  EXPECT_FALSE(listOf({a, b}).isEqualToAccessControlList(listOf({a})));
  // The kind of object is not part of the list.
  EXPECT_TRUE(listOf({a}, AclObjectKind::Directory).isEqualToAccessControlList(listOf({a})));
}

TEST(KRVAccessControlListTest, ObjectsGiveTheirStoredListThroughLinksAndNoneWithoutOne) {
  test::TestFileTree tree;
  tree.make({"file", "plain", "folder/", "link -> file", "folder-link -> folder", "dangling -> x"});
  const ExtendedAcl list = listOf({{groupUuid(7), AclEntryKind::Deny, 0, kAclDelete}}).systemAcl();
  for (const char* name : {"file", "folder"}) {
    Result<PathHandle> object = PathHandle::open(tree.path(name), LinkHandling::NoFollow);
    ASSERT_TRUE(object.ok());
    ASSERT_TRUE(writeAccessControlList(*object, list).ok());
  }

  std::optional<KRVAccessControlList> viaLink =
      KRVAccessControlList::accessControlListForObjectAtPath(tree.path("link"));
  ASSERT_TRUE(viaLink.has_value());
  EXPECT_EQ(viaLink->systemAcl(), list);
  EXPECT_FALSE(viaLink->isForDirectory());
  std::optional<KRVAccessControlList> folder =
      KRVAccessControlList::accessControlListForObjectAtPath(tree.path("folder-link"));
  ASSERT_TRUE(folder.has_value());
  EXPECT_TRUE(folder->isForDirectory());

  // No list is not an empty list.
  for (const char* name : {"plain", "dangling", "missing"}) {
    EXPECT_FALSE(KRVAccessControlList::accessControlListForObjectAtPath(tree.path(name))) << name;
  }
  EXPECT_FALSE(KRVAccessControlList::accessControlListForObjectAtPath(""));
}

}  // namespace
}  // namespace krv

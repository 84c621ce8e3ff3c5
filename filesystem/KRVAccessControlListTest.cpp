#include "filesystem/KRVAccessControlList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/AccessControlListStorage.h"
#include "platform/TestFileTree.h"

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

Bytes withEntryCount(Bytes bytes, std::uint8_t count) {
  bytes[39] = count;
  return bytes;
}

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
  ASSERT_EQ(list->count(), 3U);
  EXPECT_TRUE(list->isForDirectory());

  EXPECT_EQ(list->uuidStringOfIdentity(0), "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5");
  EXPECT_EQ(uidOfUuid(list->systemAcl().entries[0].identity), 501U);
  EXPECT_FALSE(list->isDenyType(0));
  EXPECT_TRUE(list->isInherited(0));
  EXPECT_TRUE(list->hasInheritanceFlag(kAclEntryFileInherit, 0));
  EXPECT_FALSE(list->hasInheritanceFlag(kAclEntryDirectoryInherit, 0));
  EXPECT_EQ(list->predefinedPermissionTag(0), PermissionsTag::ReadOnly);

  EXPECT_EQ(list->uuidStringOfIdentity(1), "ABCDEFAB-CDEF-ABCD-EFAB-CDEF00000014");
  EXPECT_EQ(gidOfUuid(list->systemAcl().entries[1].identity), 20U);
  EXPECT_EQ(uidOfUuid(list->systemAcl().entries[1].identity), std::nullopt);
  EXPECT_TRUE(list->isDenyType(1));
  EXPECT_FALSE(list->isInherited(1));
  EXPECT_TRUE(list->hasPermission(kAclWriteData, 1));
  EXPECT_FALSE(list->hasPermission(kAclReadData, 1));

  EXPECT_EQ(list->uuidStringOfIdentity(2), "12345678-9ABC-DEF0-0FED-CBA987654321");
  EXPECT_TRUE(list->isDenyType(2));
  EXPECT_TRUE(list->hasPermission(kAclSynchronize, 2));
  EXPECT_EQ(list->uuidStringOfIdentity(3), std::nullopt);

  // Every bit survives, the unknown flag included.
  EXPECT_EQ(list->externalRepresentation(), kThreeEntries);

  // The same entries built in memory give the same bytes.
  ExtendedAcl built;
  built.entries = {
      {userUuid(501), AclEntryKind::Allow, kAclEntryInherited | kAclEntryFileInherit, kAclReadSet},
      {groupUuid(20), AclEntryKind::Deny, kAclEntryDirectoryInherit, kAclWriteData},
      {list->systemAcl().entries[2].identity, AclEntryKind::Deny, 0x40000000, kAclSynchronize},
  };
  EXPECT_EQ(aclExternalForm(built), kThreeEntries);
  EXPECT_EQ(KRVAccessControlList(AclObjectKind::File).externalRepresentation(), kEmptyList);
}

TEST(KRVAccessControlListTest, HeaderFieldsOfForeignListsSurviveARoundTrip) {
  Bytes foreign = kEmptyList;
  foreign[4] = 0x11;   // owner GUID
  foreign[35] = 0x22;  // group GUID
  foreign[43] = 0x01;  // list flags
  Result<KRVAccessControlList> list =
      KRVAccessControlList::fromExternalRepresentation(foreign, AclObjectKind::File);
  ASSERT_TRUE(list.ok());
  EXPECT_EQ(list->externalRepresentation(), foreign);
  EXPECT_FALSE(list->isEqualToAccessControlList(KRVAccessControlList()));
}

TEST(KRVAccessControlListTest, RefusesMalformedByteForms) {
  Bytes wrongMagic = kEmptyList;
  wrongMagic[3] = 0x6e;
  Bytes littleEndianMagic = kEmptyList;
  std::copy_n(Bytes{0x6d, 0xc1, 0x2c, 0x01}.begin(), 4, littleEndianMagic.begin());
  Bytes kindZero = kThreeEntries;
  kindZero[44 + 19] = 0x30;
  Bytes kindThree = kThreeEntries;
  kindThree[44 + 24 + 19] = 0x43;
  Bytes kindAllBits = kThreeEntries;
  kindAllBits[44 + 48 + 19] = 0x0F;
  Bytes hugeCount = kEmptyList;
  std::fill_n(hugeCount.begin() + 36, 4, 0xFF);
  Bytes tooMany = withEntryCount(kEmptyList, 129);
  for (int i = 0; i < 129; ++i) {
    tooMany.insert(tooMany.end(), kThreeEntries.begin() + 44, kThreeEntries.begin() + 68);
  }
  const Bytes cases[] = {
      {},
      Bytes(kEmptyList.begin(), kEmptyList.end() - 1),  // short header
      wrongMagic,
      littleEndianMagic,
      withEntryCount(kEmptyList, 1),                          // an entry missing
      withEntryCount(kThreeEntries, 2),                       // an entry too many
      Bytes(kThreeEntries.begin(), kThreeEntries.end() - 1),  // a cut entry
      [] {
        Bytes b = kEmptyList;
        b.push_back(0);
        return b;
      }(),  // a byte after the list
      kindZero,
      kindThree,
      kindAllBits,
      hugeCount,
      tooMany,
  };
  int index = 0;
  for (const Bytes& bytes : cases) {
    Result<KRVAccessControlList> list =
        KRVAccessControlList::fromExternalRepresentation(bytes, AclObjectKind::File);
    ASSERT_FALSE(list.ok()) << "case " << index;
    EXPECT_EQ(list.error().code(), EINVAL) << "case " << index;
    ++index;
  }

  // 128 entries is the most there may be.
  Bytes most = withEntryCount(kEmptyList, 128);
  for (int i = 0; i < 128; ++i) {
    most.insert(most.end(), kThreeEntries.begin() + 44, kThreeEntries.begin() + 68);
  }
  EXPECT_TRUE(KRVAccessControlList::fromExternalRepresentation(most, AclObjectKind::File).ok());

  ExtendedAcl oversized;
  oversized.entries.resize(129);
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(oversized, AclObjectKind::File));
  ExtendedAcl unknownKind;
  unknownKind.entries = {{userUuid(1), static_cast<AclEntryKind>(3), 0, 0}};
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(unknownKind, AclObjectKind::File));
  ExtendedAcl flagInKindBits;
  flagInKindBits.entries = {{userUuid(1), AclEntryKind::Allow, 0x1, 0}};
  EXPECT_FALSE(KRVAccessControlList::withSystemAcl(flagInKindBits, AclObjectKind::File));
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
  KRVAccessControlList list = listOf({{userUuid(1), AclEntryKind::Allow, 0, 0},
                                      {groupUuid(2), AclEntryKind::Allow, 0, kAclReadData}});
  EXPECT_TRUE(list.setDenyType(true, 1));
  EXPECT_TRUE(list.setPermission(kAclExecute, true, 1));
  EXPECT_TRUE(list.setPermission(kAclReadData, false, 1));
  EXPECT_TRUE(list.setInheritanceFlag(kAclEntryOnlyInherit, true, 1));
  EXPECT_TRUE(list.setUuidString("{ffffeeee-dddd-cccc-bbbb-aaaa00001092}", 1));
  const ExtendedAclEntry expected{userUuid(0x1092), AclEntryKind::Deny, kAclEntryOnlyInherit,
                                  kAclExecute};
  EXPECT_EQ(list.systemAcl().entries[1], expected);
  EXPECT_EQ(list.systemAcl().entries[0],
            (ExtendedAclEntry{userUuid(1), AclEntryKind::Allow, 0, 0}));

  // Refused edits change nothing: several bits or none, the kind bits, bad text, a bad index.
  EXPECT_FALSE(list.setPermission(kAclReadData | kAclExecute, true, 0));
  EXPECT_FALSE(list.setPermission(0, true, 0));
  EXPECT_FALSE(list.hasPermission(kAclExecute | kAclReadData, 1));
  EXPECT_FALSE(list.setInheritanceFlag(0x2, true, 0));
  EXPECT_FALSE(list.setUuidString("", 0));
  EXPECT_FALSE(list.setUuidString("FFFFEEEE-DDDD-CCCC-BBBB-AAAA0000109", 0));
  EXPECT_FALSE(list.setDenyType(true, 2));
  EXPECT_FALSE(list.setPermission(kAclExecute, true, 2));
  EXPECT_EQ(list.systemAcl().entries[0],
            (ExtendedAclEntry{userUuid(1), AclEntryKind::Allow, 0, 0}));

  EXPECT_FALSE(list.removeEntry(2));
  EXPECT_TRUE(list.removeEntry(0));
  ASSERT_EQ(list.count(), 1U);
  EXPECT_EQ(list.systemAcl().entries[0], expected);
  EXPECT_TRUE(list.removeAllEntries());
  EXPECT_EQ(list.count(), 0U);
  EXPECT_TRUE(list.removeAllEntries());
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

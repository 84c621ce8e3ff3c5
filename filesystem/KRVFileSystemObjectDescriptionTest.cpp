#include "filesystem/KRVFileSystemObjectDescription.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "foundation/Archiver.h"
#include "foundation/ByteOrder.h"
#include "platform/AccessControlListStorage.h"
#include "platform/FileFlags.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

using Snapshot = KRVFileSystemObjectDescription;

void setAttribute(const std::string& path, const std::string& name, const std::string& value) {
  ASSERT_EQ(::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0), 0) << name;
}

void setDenyList(const std::string& path) {
  ExtendedAcl list;
  list.entries.push_back({userUuid(1234), AclEntryKind::Deny, 0, kAclWriteData});
  const Data bytes = aclExternalForm(list);
  ASSERT_EQ(::setxattr(path.c_str(), kAccessControlListAttribute, bytes.data(), bytes.size(), 0),
            0);
}

// A snapshot made from archive items, to reach states no local file system produces.
class ItemDecoder final : public Decoder {
 public:
  explicit ItemDecoder(Dictionary items) : m_items(std::move(items)) {}
  bool isKeyed() const override { return true; }
  Result<Value> decodeValue(std::string_view key) override {
    const Value* value = m_items.find(key);
    if (value == nullptr) return archiveFault("missing item");
    return *value;
  }

 private:
  Dictionary m_items;
};

Dictionary attribute(std::uint64_t size, const char* checksum = nullptr) {
  Dictionary entry;
  entry.set("ValueSize", Value::unsignedInteger(size));
  if (checksum != nullptr) entry.set("ValueChecksum", Value(checksum));
  return entry;
}

const char* const kDigestA = "0cc175b9c0f1b6a831c399e269772661";
const char* const kDigestB = "92eb5ffee6ae2fec3ad71c777531578f";

// A valid regular file's snapshot, with the items given replacing the defaults.
Result<ObjectRef> decodeSnapshot(std::initializer_list<std::pair<const char*, Value>> changes) {
  Dictionary items;
  items.set("Path", Value("/a/file"));
  for (const char* key :
       {"ErrorCode", "Owner", "GroupOwner", "AccessTime.s", "AccessTime.ns", "ModificationTime.s",
        "ModificationTime.ns", "StatusChangeTime.s", "StatusChangeTime.ns", "CreationTime.s",
        "CreationTime.ns", "Size", "Flags"}) {
    items.set(key, Value::integer(0));
  }
  items.set("POSIXMode", Value::integer(0100644));
  items.set("ExtendedAttributes", Value(Dictionary()));
  items.set("ACL", Value(Data()));
  for (const auto& [key, value] : changes) items.set(key, value);
  ItemDecoder decoder(std::move(items));
  return Snapshot::decode(decoder);
}

std::shared_ptr<const Snapshot> made(std::initializer_list<std::pair<const char*, Value>> changes) {
  Result<ObjectRef> object = decodeSnapshot(changes);
  EXPECT_TRUE(object) << object.error().description();
  return object ? std::dynamic_pointer_cast<const Snapshot>(*object) : std::make_shared<Snapshot>();
}

Value attributes(std::initializer_list<std::pair<const char*, Dictionary>> entries) {
  Dictionary dictionary;
  for (const auto& [name, entry] : entries) dictionary.set(name, Value(entry));
  return Value(std::move(dictionary));
}

TEST(KRVFileSystemObjectDescriptionTest, DescribesTheObjectItselfWithItsAttributesFlagsAndList) {
  test::TestFileTree tree;
  const std::string file = tree.makeFile("file", "contents", 04755);
  setAttribute(file, "user.note", "a");
  setAttribute(file, "trusted.other", "b");
  setAttribute(file, "user.empty", "");
  setDenyList(file);
  ASSERT_TRUE(writeFileFlags(file, kHiddenFlag));

  auto snapshot = Snapshot::descriptionForObjectAtPath(file);
  ASSERT_TRUE(snapshot && snapshot->isValid());
  EXPECT_EQ(snapshot->path(), file);
  EXPECT_EQ(snapshot->objectType(), 5);
  EXPECT_EQ(snapshot->posixMode(), 0104755);
  EXPECT_EQ(snapshot->posixPermissions(), 0755);
  EXPECT_EQ(snapshot->objectSize(), 8u);
  EXPECT_EQ(snapshot->objectFlags(), kHiddenFlag);
  // The internal records and empty values are not listed; the list and flags records are read.
  const Dictionary listed = snapshot->extendedAttributeDescriptions();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(*listed.find("user.note"), Value(attribute(1, kDigestA)));
  EXPECT_EQ(*listed.find("trusted.other"), Value(attribute(1, kDigestB)));
  ASSERT_TRUE(snapshot->accessControlList());
  EXPECT_EQ(snapshot->accessControlList()->count(), 1u);

  // A link is described as a link, but carries its destination's list.
  const std::string link = tree.makeLink("link", "file");
  auto linkSnapshot = Snapshot::descriptionForObjectAtPath(link);
  EXPECT_EQ(linkSnapshot->objectType(), 6);
  EXPECT_EQ(linkSnapshot->objectSize(), 4u);
  EXPECT_TRUE(linkSnapshot->extendedAttributes().empty());
  EXPECT_TRUE(linkSnapshot->hasAccessControlListEqualTo(snapshot.get()));
  EXPECT_FALSE(
      Snapshot::descriptionForObjectAtPath(tree.makeLink("broken", "none"))->accessControlList());

  auto missing = Snapshot::descriptionForObjectAtPath(tree.path("none"));
  EXPECT_FALSE(missing->isValid());
  EXPECT_EQ(missing->errorCode(), -1);
  EXPECT_EQ(missing->path(), tree.path("none"));
  EXPECT_EQ(missing->objectOwnerIdentification(), Snapshot::kUnknownIdentity);
  EXPECT_EQ(missing->description(),
            "KRVFileSystemObjectDescription: does not contain a valid "
            "description.");
  EXPECT_EQ(Snapshot::descriptionForObjectAtPath(""), nullptr);

  // The live value, and what the client sees of the attributes.
  Array sorted = snapshot->sortedExtendedAttributesDescriptions();
  ASSERT_EQ(sorted.size(), 2u);
  EXPECT_EQ(*sorted[0].asDictionary()->find("Name")->asString(), "trusted.other");
  Result<std::optional<Data>> live =
      snapshot->liveValueForExtendedAttributeOfDescription(sorted[1].asDictionary());
  ASSERT_TRUE(live && *live);
  EXPECT_EQ(**live, (Data{'a'}));
  EXPECT_FALSE(*snapshot->liveValueForExtendedAttributeOfDescription(nullptr));
  EXPECT_EQ(snapshot->description().find("KRVFileSystemObjectDescription for path '" + file +
                                         "':\ntype 5 owner: 0 group owner: 0 POSIX access: 0755"),
            0u);
}

TEST(KRVFileSystemObjectDescriptionTest, ArchivesRoundTripEveryFieldInBothForms) {
  test::TestFileTree tree;
  // A name that is not UTF-8, in the path and among the attributes.
  const std::string file = tree.makeFile("caf\xe9", "x");
  setAttribute(file, "user.\xff", "a");
  setAttribute(file, "user.note", "b");
  setDenyList(file);
  auto original = Snapshot::descriptionForObjectAtPath(file);
  const Value value{ObjectRef(original)};
  for (const bool keyed : {false, true}) {
    SCOPED_TRACE(keyed ? "keyed" : "sequential");
    const Data bytes = keyed ? archiveKeyed(value) : archiveSequential(value);
    const ClassRegistry& classes = Snapshot::comparisonClasses();
    Result<Value> decoded =
        keyed ? unarchiveKeyed(bytes, classes) : unarchiveSequential(bytes, classes);
    ASSERT_TRUE(decoded) << decoded.error().description();
    const Snapshot* copy = decoded->objectAs<Snapshot>();
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(*copy == *original);
    EXPECT_TRUE(copy->hasPOSIXPermissionsEqualTo(original.get()));
    EXPECT_TRUE(copy->hasAccessControlListEqualTo(original.get()));
    EXPECT_TRUE(copy->hasExtendedAttributesEqualTo(original.get(), false));
    EXPECT_TRUE(copy->hasAttributesEqualTo(original.get()));
    EXPECT_TRUE(copy->hasStatusChangeTimeEqualTo(original.get()));
    EXPECT_TRUE(copy->hasContentsEqualTo(original.get(), true));
  }
}

TEST(KRVFileSystemObjectDescriptionTest, EqualityQuestionsCompareOnlyWhatTheyName) {
  auto plain = made({});
  EXPECT_FALSE(plain->hasPOSIXPermissionsEqualTo(nullptr));
  EXPECT_TRUE(
      plain->hasPOSIXPermissionsEqualTo(made({{"POSIXMode", Value::integer(0107644)}}).get()));
  EXPECT_FALSE(
      plain->hasPOSIXPermissionsEqualTo(made({{"POSIXMode", Value::integer(0100645)}}).get()));
  EXPECT_FALSE(plain->hasPOSIXPermissionsEqualTo(made({{"GroupOwner", Value::integer(5)}}).get()));
  // The compressed bit and the creation and access times make no difference of attributes.
  EXPECT_TRUE(plain->hasAttributesEqualTo(made({{"Flags", Value::integer(0x20)},
                                                {"CreationTime.s", Value::integer(9)},
                                                {"AccessTime.ns", Value::integer(9)}})
                                              .get()));
  EXPECT_FALSE(plain->hasAttributesEqualTo(made({{"Flags", Value::integer(0x8000)}}).get()));
  EXPECT_FALSE(
      plain->hasAttributesEqualTo(made({{"ModificationTime.ns", Value::integer(1)}}).get()));
  EXPECT_FALSE(
      plain->hasStatusChangeTimeEqualTo(made({{"StatusChangeTime.ns", Value::integer(1)}}).get()));
  EXPECT_FALSE(plain->hasContentsEqualTo(made({{"Size", Value::integer(1)}}).get(), false));
  EXPECT_FALSE(
      plain->hasContentsEqualTo(made({{"POSIXMode", Value::integer(040644)}}).get(), false));
  EXPECT_FALSE(plain->creationTime());
  EXPECT_EQ(made({{"CreationTime.s", Value::integer(7)}})->creationTime()->secondsSince1970, 7.0);
  EXPECT_TRUE(made({{"Path", Value("/a/._file")}})->isAppleDoubleFile());
  EXPECT_FALSE(made({{"Path", Value("/a._/file")}})->isAppleDoubleFile());
}

TEST(KRVFileSystemObjectDescriptionTest, ExtendedAttributesCompareByLengthAndDigest) {
  auto with = [](Value list, std::uint32_t flags = 0) {
    return made({{"ExtendedAttributes", std::move(list)}, {"Flags", Value::integer(flags)}});
  };
  auto equal = [](const auto& one, const auto& other, bool ignoreTimeMachine = false) {
    return one->hasExtendedAttributesEqualTo(other.get(), ignoreTimeMachine);
  };
  const auto none = with(attributes({}));
  const auto a = with(attributes({{"user.x", attribute(1, kDigestA)}}));
  EXPECT_TRUE(equal(a, a));
  EXPECT_FALSE(equal(a, none));
  EXPECT_FALSE(equal(none, a));
  EXPECT_FALSE(equal(a, with(attributes({{"user.x", attribute(1, kDigestB)}}))));
  // A digest is compared only when both sides have one; a length of 0 is as good as missing.
  EXPECT_TRUE(equal(a, with(attributes({{"user.x", attribute(1)}}))));
  EXPECT_TRUE(equal(none, with(attributes({{"user.y", attribute(0)}}))));

  // Time Machine names, with or without "user.", only when asked.
  const auto machine =
      with(attributes({{"com.apple.metadata:_kTimeMachineOldestSnapshot", attribute(1, kDigestA)},
                       {"user.com.apple.metadata:_kTimeMachineNewest", attribute(2, kDigestB)}}));
  EXPECT_TRUE(equal(machine, none, true));
  EXPECT_FALSE(equal(machine, none));

  // The compression names are ignored when either side is compressed.
  const Value fork = attributes({{"user.com.apple.ResourceFork", attribute(40)},
                                 {"com.apple.decmpfs", attribute(16, kDigestA)}});
  EXPECT_TRUE(equal(with(fork, 0x20), none));
  EXPECT_TRUE(equal(none, with(fork, 0x20)));
  EXPECT_FALSE(equal(with(fork), none));
}

TEST(KRVFileSystemObjectDescriptionTest, DecodingRefusesMalformedAttributesAndKeepsNoBadList) {
  for (const Dictionary& entry :
       {Dictionary(), attribute(1, "0CC175B9C0F1B6A831C399E269772661"), attribute(1, "abc"), [] {
          Dictionary extra = attribute(1, kDigestA);
          extra.set("Name", Value("x"));
          return extra;
        }()}) {
    Dictionary list;
    list.set("user.x", Value(entry));
    EXPECT_FALSE(decodeSnapshot({{"ExtendedAttributes", Value(list)}}));
  }
  EXPECT_FALSE(decodeSnapshot({{"Size", Value::real(1.0)}}));
  EXPECT_FALSE(decodeSnapshot({{"Path", Value(Data{'/', 'a'})}}));  // UTF-8 must come as text
  // Integers are cut to their field's width; a list that cannot be read is left out.
  const auto cut = made({{"ErrorCode", Value::integer(0x100000000)},
                         {"POSIXMode", Value::integer(0x18000)},
                         {"ACL", Value(Data{1, 2, 3})}});
  EXPECT_TRUE(cut->isValid());
  EXPECT_EQ(cut->posixMode(), 0x8000);
  EXPECT_FALSE(cut->accessControlList());
}

}  // namespace
}  // namespace krv

#include "protocol/KRVPrivilegedCommand.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "foundation/Archiver.h"
#include "tests/support/Fixtures.h"

namespace krv {
namespace {

std::unique_ptr<KRVPrivilegedCommand> make(std::uint32_t code, Array arguments) {
  return KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
}

Result<Value> decode(const Data& payload) {
  return unarchiveSequential(payload, KRVPrivilegedCommand::transportClasses());
}

TEST(KRVPrivilegedCommandTest, ValidatesArgumentsAgainstTheTable) {
  EXPECT_TRUE(make(kCommandExecuteTmutil, {})->isValid());
  EXPECT_TRUE(make(kCommandDeleteFileObjects, {})->isValid());
  EXPECT_FALSE(make(kCommandDeleteFileObjects, {Value("1"), Value::integer(2)})->isValid());
  EXPECT_TRUE(make(kCommandModifyAclPermissions, {Value("/x"), Value(Data{1, 2})})->isValid());
  EXPECT_FALSE(make(kCommandModifyAclPermissions, {Value("/x"), Value("acl")})->isValid());
  EXPECT_FALSE(make(kCommandSearchAgedFiles, {Value("/x"), Value::integer(1)})->isValid());
  EXPECT_EQ(make(kNumberOfCommandCodes, {}), nullptr);
  EXPECT_EQ(make(kCommandWhoAmI, {})->requiredClassForArgumentAtIndex(0), ValueType::Number);
  EXPECT_FALSE(make(kCommandWhoAmI, {})->requiredClassForArgumentAtIndex(1));
  EXPECT_EQ(make(kCommandDeleteFileSubtree, {})->requiredClassForArgumentAtIndex(40),
            ValueType::String);
  EXPECT_FALSE(make(kCommandGetVersion, {})->requiredClassForArgumentAtIndex(0));
}

TEST(KRVPrivilegedCommandTest, AStringArgumentHasOneEncoding) {
  const Value notUtf8(Data{'/', 't', 0xFF});
  const Value utf8Bytes(Data{'/', 't'});
  EXPECT_TRUE(make(kCommandInspectFileObject, {notUtf8})->isValid());
  EXPECT_FALSE(make(kCommandInspectFileObject, {utf8Bytes})->isValid());
  EXPECT_FALSE(make(kCommandInspectFileObject, {Value(std::string("/t\xff"))})
                   ->isValid());  // could not be sent
  EXPECT_TRUE(make(kCommandDeleteFileObjects, {Value("1"), Value("/a"), notUtf8})->isValid());
  EXPECT_FALSE(make(kCommandDeleteFileObjects, {Value("1"), utf8Bytes})->isValid());
  // A data argument takes any bytes, UTF-8 or not.
  EXPECT_TRUE(make(kCommandModifyAclPermissions, {notUtf8, Value(Data{'a'})})->isValid());
  EXPECT_FALSE(make(kCommandModifyAclPermissions, {utf8Bytes, Value(Data{0xFF})})->isValid());
}

TEST(KRVPrivilegedCommandTest, ListsEveryRightFromCodeTwoOn) {
  auto commands = KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization();
  ASSERT_EQ(commands.size(), 52u);  // codes 2..54 without the reserved code
  EXPECT_EQ(commands.front()->commandCode(), kCommandShutdown);
  EXPECT_EQ(commands.back()->commandCode(), kCommandExecuteTmutil);
  for (const auto& command : commands) {
    EXPECT_NE(command->commandCode(), kCommandReserved);
    EXPECT_TRUE(command->commentForAuthorizationRight().has_value());
  }
}

TEST(KRVPrivilegedCommandTest, StartsWithTheCallersUserAndRoundTripsInBothArchiveForms) {
  auto command = make(kCommandModifyFileContent,
                      {Value("/etc/hosts"), Value(Data{'x'}), Value::boolean(true)});
  EXPECT_EQ(command->userIdentification(), ::getuid());
  EXPECT_FALSE(command->hasAuthorizationToken());
  EXPECT_EQ(
      make(kCommandSearchAgedFiles, {Value("/var/tmp"), Value::integer(30), Value::integer(1)})
          ->description(),
      "KRVPrivilegedCommand<com.tavorin.search.aged-files>: (\"/var/tmp\", 30, 1)\n");
  auth::ExternalForm token;
  for (std::size_t i = 0; i < token.size(); ++i) token[i] = static_cast<std::uint8_t>(i + 1);
  command->setAuthorizationToken(token);
  command->setUserIdentification(501);
  command->setDeauthorizesAfterExecution(true);
  for (bool keyed : {false, true}) {
    Data archive = keyed ? archiveKeyed(*command) : archiveSequential(*command);
    Result<Value> decoded =
        keyed ? unarchiveKeyed(archive, KRVPrivilegedCommand::transportClasses()) : decode(archive);
    ASSERT_TRUE(decoded) << decoded.error().description();
    const auto* copy = decoded->objectAs<KRVPrivilegedCommand>();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->commandCode(), kCommandModifyFileContent);
    EXPECT_EQ(copy->arguments(), command->arguments());
    EXPECT_EQ(copy->authorizationToken(), token);
    EXPECT_EQ(copy->userIdentification(), 501u);
    EXPECT_TRUE(copy->deauthorizesAfterExecution());
  }
}

TEST(KRVPrivilegedCommandTest, DecodesRequestsWrittenByAnIndependentEncoder) {
  Result<Value> search = decode(test::readCborFixture("request-search.cbor"));
  ASSERT_TRUE(search) << search.error().description();
  const auto* command = search->objectAs<KRVPrivilegedCommand>();
  ASSERT_NE(command, nullptr);
  EXPECT_EQ(command->commandCode(), kCommandSearchAgedFiles);
  EXPECT_EQ(command->userIdentification(), 501u);
  EXPECT_FALSE(command->hasAuthorizationToken());
  ASSERT_TRUE(command->isValid());
  EXPECT_EQ(*command->arguments()[0].asString(), "/var/tmp");

  Result<Value> deletion = decode(test::readCborFixture("request-delete.cbor"));
  ASSERT_TRUE(deletion) << deletion.error().description();
  const auto* second = deletion->objectAs<KRVPrivilegedCommand>();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->commandCode(), kCommandDeleteFileObjects);
  EXPECT_TRUE(second->hasAuthorizationToken());
  EXPECT_EQ(second->arguments().size(), 3u);
}

// Hand-built requests: 27([name, version, code, arguments, token, uid, flag]).
Data request(std::uint8_t versionHigh, std::uint8_t versionLow, std::uint8_t code,
             std::uint8_t tokenLength, std::uint8_t flag) {
  Data bytes = {0xD8, 0x1B, 0x87, 0x74};
  std::string name = "KRVPrivilegedCommand";
  bytes.insert(bytes.end(), name.begin(), name.end());
  bytes.insert(bytes.end(), {0x19, versionHigh, versionLow, 0x18, code, 0x80, 0x58, tokenLength});
  bytes.insert(bytes.end(), tokenLength, 0);
  bytes.insert(bytes.end(), {0x19, 0x01, 0xF5, flag});
  return bytes;
}

TEST(KRVPrivilegedCommandTest, RefusesInvalidDecodedObjects) {
  EXPECT_TRUE(decode(request(0x01, 0x36, 26, 32, 0x00)));   // version 310, code 26, no arguments
  EXPECT_FALSE(decode(request(0x01, 0x36, 60, 32, 0x00)));  // code 60
  EXPECT_FALSE(decode(request(0x01, 0x36, 14, 32, 0x00)));  // code 14 needs three arguments
  EXPECT_FALSE(decode(request(0x01, 0x36, 26, 31, 0x00)));  // short token
  EXPECT_FALSE(decode(request(0x01, 0x36, 26, 32, 0x02)));  // flag is not 0 or 1
}

TEST(KRVPrivilegedCommandTest, WarnsAboutAnotherSenderVersionButDecodes) {
  testing::internal::CaptureStderr();
  Result<Value> decoded = decode(request(0x01, 0x2C, 26, 32, 0x01));  // version 300
  std::string console = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(console,
            "KRVPrivilegedCommand: WARNING: receiver implementation is version 3.10, sender "
            "implementation uses version 3.00. Update is necessary.\n");
}

}  // namespace
}  // namespace krv

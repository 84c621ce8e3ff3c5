#include <gtest/gtest.h>

#include <algorithm>

#include "authorization/AuthorityProtocol.h"
#include "foundation/Archiver.h"

namespace krv::auth {
namespace {

Data archive(Dictionary dictionary) { return archiveSequential(Value(std::move(dictionary))); }

Dictionary request(std::string_view operation) {
  Dictionary dictionary;
  dictionary.append("Operation", Value(operation));
  return dictionary;
}

Value token(std::size_t size = 32) { return Value(Data(size, 0xab)); }

Dictionary copyRights() {
  Dictionary dictionary = request("CopyRights");
  dictionary.append("Token", token());
  dictionary.append("Right", Value("com.test.right"));
  dictionary.append("Flags", Value::integer(kFlagInteractionAllowed | kFlagExtendRights));
  return dictionary;
}

Dictionary with(Dictionary dictionary, std::string_view key, Value value) {
  dictionary.set(key, std::move(value));
  return dictionary;
}

// A copy-rights request with one entry set (or replaced).
Data copyRightsWith(std::string_view key, Value value) {
  return archive(with(copyRights(), key, std::move(value)));
}

TEST(AuthorityProtocolTest, EveryOperationRoundTrips) {
  for (Operation operation : {Operation::Create, Operation::CopyRights, Operation::Free,
                              Operation::Validate, Operation::DestroyRights, Operation::RightGet,
                              Operation::RightSet, Operation::RightRemove}) {
    SCOPED_TRACE(operationName(operation));
    Request sent;
    sent.operation = operation;
    sent.token.fill(0x5a);
    sent.right = "com.test.right";
    sent.flags = kFlagExtendRights;
    sent.user = 1001;
    sent.account = "alice";
    sent.definition = Value("default");
    const Data encoded = encodeRequest(sent);
    DecodedRequest decoded = decodeRequest(encoded);
    ASSERT_EQ(decoded.status, kStatusSuccess);
    EXPECT_EQ(decoded.request.operation, operation);
    EXPECT_EQ(encodeRequest(decoded.request), encoded) << "nothing is lost on the way";
    if (operation == Operation::CopyRights) {
      EXPECT_EQ(decoded.request.account, "alice");
    }
  }
}

TEST(AuthorityProtocolTest, RefusesMalformedRequestsWithTheirStatus) {
  struct Case {
    const char* scenario;
    Data payload;
    std::int32_t status;
  };
  Dictionary validate = with(copyRights(), "Operation", Value("Validate"));
  validate.append("User", Value::integer(1001));
  Dictionary noFlags = copyRights();
  noFlags.remove("Flags");
  Data trailing = archive(request("Create"));
  trailing.push_back(0x00);
  const Case cases[] = {
      {"not CBOR", Data{0xff, 0x00, 0x13}, kStatusInvalidSet},
      {"empty", Data{}, kStatusInvalidSet},
      {"an array", archiveSequential(Value(Array{Value("Create")})), kStatusInvalidSet},
      {"no operation", archive(Dictionary()), kStatusInvalidSet},
      {"operation not a string", archive(with({}, "Operation", Value::integer(1))),
       kStatusInvalidSet},
      {"unknown operation", archive(request("Shutdown")), kStatusInvalidSet},
      {"unknown key", copyRightsWith("Uid", Value::integer(0)), kStatusInvalidSet},
      {"key of another operation", archive(with(request("Create"), "Token", token())),
       kStatusInvalidSet},
      {"missing flags", archive(noFlags), kStatusInvalidSet},
      {"short token", copyRightsWith("Token", token(31)), kStatusInvalidRef},
      {"long token", copyRightsWith("Token", token(33)), kStatusInvalidRef},
      {"token as text", copyRightsWith("Token", Value(std::string(32, 'a'))), kStatusInvalidRef},
      {"unknown flag", copyRightsWith("Flags", Value::integer(1 << 5)), kStatusInvalidFlags},
      {"flags above 32 bits", copyRightsWith("Flags", Value::integer(1LL << 33)),
       kStatusInvalidSet},
      {"negative flags", copyRightsWith("Flags", Value::integer(-1)), kStatusInvalidSet},
      {"flags as boolean", copyRightsWith("Flags", Value::boolean(true)), kStatusInvalidSet},
      {"right with slash", copyRightsWith("Right", Value("com/test")), kStatusInvalidSet},
      {"right dot dot", copyRightsWith("Right", Value("..")), kStatusInvalidSet},
      {"right as data", copyRightsWith("Right", Value(Data{'a'})), kStatusInvalidSet},
      {"user -1", archive(with(validate, "User", Value::unsignedInteger(0xffffffffu))),
       kStatusInvalidSet},
      {"user above 32 bits", archive(with(validate, "User", Value::integer(1LL << 32))),
       kStatusInvalidSet},
      {"account with colon", copyRightsWith("UserName", Value("root:x")), kStatusInvalidSet},
      {"account with newline", copyRightsWith("UserName", Value("a\nb")), kStatusInvalidSet},
      {"account like an option", copyRightsWith("UserName", Value("-froot")), kStatusInvalidSet},
      {"empty account", copyRightsWith("UserName", Value("")), kStatusInvalidSet},
      {"trailing bytes", trailing, kStatusInvalidSet},
      {"too large", Data(kMaximumRequestPayload + 1, 0x60), kStatusInvalidSet},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(decodeRequest(c.payload).status, c.status) << c.scenario;
  }
  EXPECT_EQ(decodeRequest(archive(validate)).status, kStatusSuccess);
}

TEST(AuthorityProtocolTest, AnswersDecodeStrictlyAndWipeThePayload) {
  Data response = encodeAnswer(AnswerKind::Response, "hunter2");
  Result<Answer> answer = decodeAnswer(response);
  ASSERT_TRUE(answer.ok());
  EXPECT_EQ(answer->kind, AnswerKind::Response);
  EXPECT_EQ(answer->response.view(), "hunter2");
  EXPECT_TRUE(std::all_of(response.begin(), response.end(), [](std::uint8_t b) { return b == 0; }))
      << "the payload holding the password was wiped";

  for (AnswerKind kind : {AnswerKind::Cancel, AnswerKind::Unavailable}) {
    Data bytes = encodeAnswer(kind);
    EXPECT_EQ(decodeAnswer(bytes)->kind, kind);
  }
  Data empty = encodeAnswer(AnswerKind::Response, "");
  EXPECT_TRUE(decodeAnswer(empty)->response.empty());

  Dictionary two;
  two.append("Response", Value("a"));
  two.append("Cancel", Value::boolean(true));
  const Data refused[] = {
      archive(two),
      archive(with({}, "Cancel", Value::boolean(false))),
      archive(with({}, "Cancel", Value::integer(1))),
      archive(with({}, "Response", Value(Data{'p'}))),
      archive(with({}, "Response", Value(std::string(Secret::kCapacity + 1, 'p')))),
      archive(with({}, "Response", Value(std::string("pa\0ss", 5)))),
      archive(with({}, "Proceed", Value::boolean(true))),
      archiveSequential(Value("hunter2")),
      Data{0xa1, 0x68},
  };
  for (const Data& bytes : refused) {
    Data copy = bytes;
    EXPECT_FALSE(decodeAnswer(copy).ok()) << Value(bytes).description();
  }
}

TEST(AuthorityProtocolTest, SanitizedMessagesAreSafeForATerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"Password: ", "Password: "},
      {"line\nand\ttab", "line\nand\ttab"},
      {"\x1b]0;owned\x07Password:", "?]0;owned?Password:"},
      {"del\x7f", "del?"},
      {"caf\xc3\xa9", "caf\xc3\xa9"},
      {"C1 \xc2\x9b"
       "31m",
       "C1 \xef\xbf\xbd\xef\xbf\xbd"
       "31m"},
      {"bad \xff byte", "bad \xef\xbf\xbd byte"},
      {"overlong \xc0\xaf", "overlong \xef\xbf\xbd\xef\xbf\xbd"},
      {"surrogate \xed\xa0\x80", "surrogate \xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
      {"cut \xe2\x82", "cut \xef\xbf\xbd\xef\xbf\xbd"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(sanitizeMessage(input), expected);
  std::string longText(kMaximumPromptMessage - 1, 'x');
  longText += "\xc3\xa9";
  EXPECT_EQ(sanitizeMessage(longText), std::string(kMaximumPromptMessage - 1, 'x'))
      << "cut at a character boundary";
}

TEST(AuthorityProtocolTest, ServiceMessagesCarryPromptsOrAFinalStatus) {
  Result<ServiceMessage> prompt =
      decodeServiceMessage(encodePrompt(Prompt{PromptStyle::Secret, "Password: \x1b[2J"}));
  ASSERT_TRUE(prompt.ok());
  ASSERT_TRUE(prompt->prompt.has_value());
  EXPECT_EQ(prompt->prompt->style, PromptStyle::Secret);
  EXPECT_EQ(prompt->prompt->message, "Password: ?[2J");

  Dictionary results;
  results.append("Token", token());
  Result<ServiceMessage> reply = decodeServiceMessage(encodeReply(kStatusDenied, results));
  ASSERT_TRUE(reply.ok());
  EXPECT_FALSE(reply->prompt.has_value());
  EXPECT_EQ(reply->status, kStatusDenied);
  EXPECT_EQ(reply->results, results);

  EXPECT_FALSE(decodeServiceMessage(archive(with({}, "Status", Value::integer(1LL << 40)))).ok());
  EXPECT_FALSE(decodeServiceMessage(archive(with({}, "Status", Value::real(0)))).ok());
  EXPECT_FALSE(decodeServiceMessage(archive(with({}, "Prompt", Value("x")))).ok());
  EXPECT_FALSE(decodeServiceMessage(archive({})).ok());
}

}  // namespace
}  // namespace krv::auth

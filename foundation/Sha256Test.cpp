#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "foundation/Sha256.h"

namespace krv {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

struct Vector {
  std::string text;
  std::string_view digest;
};

// The FIPS 180-4 examples plus lengths on either side of the padding boundaries (55, 56 and 64
// bytes), where an off-by-one in the length block shows.
const Vector kVectors[] = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmn"
     "opqrsmnopqrstnopqrstu",
     "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
    {std::string(55, 'x'), "d5e285683cd4efc02d021a5c62014694958901005d6f71e89e0989fac77e4072"},
    {std::string(56, 'x'), "04c26261370ee7541549d16dee320c723e3fd14671e66a099afe0a377c16888e"},
    {std::string(64, 'x'), "7ce100971f64e7001e8fe5a51973ecdfe1ced42befe7ee8d5fd6219506b5393c"},
};

TEST(Sha256Test, MatchesTheReferenceVectors) {
  for (const Vector& vector : kVectors) {
    EXPECT_EQ(Sha256::hex(Sha256::digest(bytesOf(vector.text))), vector.digest)
        << "length " << vector.text.size();
  }
}

TEST(Sha256Test, IncrementalUpdatesInAnySplitGiveTheSameDigest) {
  const std::string& text = kVectors[3].text;
  for (std::size_t split = 0; split <= text.size(); split += 7) {
    Sha256 sha;
    sha.update(bytesOf(std::string_view(text).substr(0, split)));
    sha.update(bytesOf(std::string_view(text).substr(split)));
    EXPECT_EQ(Sha256::hex(sha.finish()), kVectors[3].digest) << "split at " << split;
  }
  Sha256 million;  // one million letters, in pieces of a thousand
  const std::string chunk(1000, 'a');
  for (int i = 0; i < 1000; ++i) million.update(bytesOf(chunk));
  EXPECT_EQ(Sha256::hex(million.finish()),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, DigestsEqualComparesEveryByte) {
  Sha256::Digest first = Sha256::digest(bytesOf("token"));
  Sha256::Digest second = first;
  EXPECT_TRUE(digestsEqual(first, second));
  for (std::size_t i : {std::size_t{0}, std::size_t{15}, std::size_t{31}}) {
    second = first;
    second[i] ^= 0x01;
    EXPECT_FALSE(digestsEqual(first, second)) << "byte " << i;
  }
  EXPECT_FALSE(digestsEqual(std::span(first).first(31), first));
}

}  // namespace
}  // namespace krv

#include "foundation/Wipe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace krv {
namespace {

bool allZero(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == 0; });
}

TEST(WipeTest, ClearsEveryStringAndByteStringInsideAValueAndKeepsItsShape) {
  Dictionary inner;
  inner.append("Token", Value(Data{1, 2, 3}));
  Dictionary outer;
  outer.append("Password", Value("hunter2"));
  outer.append("Nested", Value(Array{Value("secret"), Value(std::move(inner))}));
  outer.append("Count", Value::integer(3));
  Value value(std::move(outer));

  wipe(value);

  const Dictionary& wiped = *value.asDictionary();
  ASSERT_EQ(wiped.size(), 3u);
  EXPECT_EQ(wiped.entries()[0].first, "Password");  // keys stay
  EXPECT_EQ(wiped.find("Password")->asString()->size(), 7u);
  EXPECT_TRUE(allZero(*wiped.find("Password")->asString()));
  const Array& nested = *wiped.find("Nested")->asArray();
  EXPECT_TRUE(allZero(*nested[0].asString()));
  EXPECT_EQ(*nested[1].asDictionary()->find("Token")->asData(), (Data{0, 0, 0}));
  EXPECT_EQ(*wiped.find("Count"), Value::integer(3));
}

}  // namespace
}  // namespace krv

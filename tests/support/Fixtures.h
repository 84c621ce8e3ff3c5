#pragma once
// Test fixtures are read from the source tree, whose path the build compiles into each test, so
// a test binary finds them wherever and however it is started.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "foundation/Value.h"

namespace krv::test {

inline Data readCborFixture(const std::string& name) {
  std::ifstream input(std::string(KRV_SOURCE_DIR) + "/tests/fixtures/cbor/" + name,
                      std::ios::binary);
  EXPECT_TRUE(input) << "missing fixture " << name;
  return Data(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
}

}  // namespace krv::test

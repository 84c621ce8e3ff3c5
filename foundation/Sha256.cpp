#include "foundation/Sha256.h"

#include <algorithm>
#include <cstring>

namespace krv {

namespace {

constexpr std::uint32_t kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t rotateRight(std::uint32_t value, int count) {
  return (value >> count) | (value << (32 - count));
}

}  // namespace

Sha256::Sha256()
    : BlockDigest({0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c,
                   0x1f83d9ab, 0x5be0cd19}) {}

void Sha256::transform(const std::uint8_t* block) {
  std::uint32_t schedule[64];
  for (std::size_t i = 0; i < 16; ++i) schedule[i] = wordAt(block, i);
  for (int i = 16; i < 64; ++i) {
    std::uint32_t s0 = rotateRight(schedule[i - 15], 7) ^ rotateRight(schedule[i - 15], 18) ^
                       (schedule[i - 15] >> 3);
    std::uint32_t s1 = rotateRight(schedule[i - 2], 17) ^ rotateRight(schedule[i - 2], 19) ^
                       (schedule[i - 2] >> 10);
    schedule[i] = schedule[i - 16] + s0 + schedule[i - 7] + s1;
  }
  std::uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];
  std::uint32_t e = m_state[4], f = m_state[5], g = m_state[6], h = m_state[7];
  for (int i = 0; i < 64; ++i) {
    std::uint32_t sum1 = rotateRight(e, 6) ^ rotateRight(e, 11) ^ rotateRight(e, 25);
    std::uint32_t choice = (e & f) ^ (~e & g);
    std::uint32_t first = h + sum1 + choice + kRoundConstants[i] + schedule[i];
    std::uint32_t sum0 = rotateRight(a, 2) ^ rotateRight(a, 13) ^ rotateRight(a, 22);
    std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
    std::uint32_t second = sum0 + majority;
    h = g;
    g = f;
    f = e;
    e = d + first;
    d = c;
    c = b;
    b = a;
    a = first + second;
  }
  m_state[0] += a;
  m_state[1] += b;
  m_state[2] += c;
  m_state[3] += d;
  m_state[4] += e;
  m_state[5] += f;
  m_state[6] += g;
  m_state[7] += h;
}

bool digestsEqual(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second) {
  if (first.size() != second.size()) return false;
  // Accumulate every difference; a volatile sink keeps the compiler from ending the loop early.
  volatile std::uint8_t difference = 0;
  for (std::size_t i = 0; i < first.size(); ++i) {
    difference = static_cast<std::uint8_t>(difference | (first[i] ^ second[i]));
  }
  return difference == 0;
}

}  // namespace krv

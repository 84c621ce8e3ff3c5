#pragma once
// BlockDigest: what the MD5 and SHA-256 digests share. Both cut the stream into 64-byte blocks for
// their compression function, keeping an incomplete tail for the next update; both pad the last
// block with 0x80, zeros up to 56 bytes into a block and the stream's length in bits as 64 bits;
// both give their state words as the digest. They differ in the compression function and in the
// byte order of words and length (MD5 little-endian, SHA-256 big-endian).
//
// A digest derives from BlockDigest<itself, state words, byte order>, sets the initial state and
// provides transform(const std::uint8_t* block), which folds one block into m_state. One object
// computes one digest and is not synchronised; the static functions are thread-safe.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "foundation/ByteOrder.h"

namespace krv {

enum class DigestByteOrder : std::uint8_t { LittleEndian, BigEndian };

template <class Algorithm, std::size_t kWords, DigestByteOrder kOrder>
class BlockDigest {
 public:
  static constexpr std::size_t kBlockSize = 64;
  using Digest = std::array<std::uint8_t, 4 * kWords>;

  void update(std::span<const std::uint8_t> bytes) {
    m_length += bytes.size();
    std::size_t offset = 0;
    if (m_buffered > 0) {
      const std::size_t take = std::min(bytes.size(), kBlockSize - m_buffered);
      std::memcpy(m_buffer.data() + m_buffered, bytes.data(), take);
      m_buffered += take;
      offset = take;
      if (m_buffered < kBlockSize) return;
      transform(m_buffer.data());
      m_buffered = 0;
    }
    for (; bytes.size() - offset >= kBlockSize; offset += kBlockSize) {
      transform(bytes.data() + offset);
    }
    std::memcpy(m_buffer.data(), bytes.data() + offset, bytes.size() - offset);
    m_buffered = bytes.size() - offset;
  }

  // Finishes the digest; the object must not be updated afterwards.
  Digest finish() {
    std::uint8_t padding[kBlockSize + 8] = {0x80};
    const std::size_t zeros = (m_buffered < 56 ? 56 : 120) - m_buffered;
    store(padding + zeros, m_length * 8);
    update(std::span<const std::uint8_t>(padding, zeros + 8));
    Digest digest;
    for (std::size_t i = 0; i < kWords; ++i) store(digest.data() + 4 * i, m_state[i]);
    return digest;
  }

  static Digest digest(std::span<const std::uint8_t> bytes) {
    Algorithm algorithm;
    algorithm.update(bytes);
    return algorithm.finish();
  }

  // Lower-case hexadecimal.
  static std::string hex(std::span<const std::uint8_t> digest) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(digest.size() * 2);
    for (std::uint8_t byte : digest) {
      text += kDigits[byte >> 4];
      text += kDigits[byte & 0x0F];
    }
    return text;
  }

 protected:
  explicit BlockDigest(const std::array<std::uint32_t, kWords>& initial) : m_state(initial) {}

  // Word `index` of a block, in the digest's byte order.
  static std::uint32_t wordAt(const std::uint8_t* block, std::size_t index) {
    return kOrder == DigestByteOrder::LittleEndian
               ? loadLittleEndian<std::uint32_t>(block + 4 * index)
               : loadBigEndian<std::uint32_t>(block + 4 * index);
  }

  std::array<std::uint32_t, kWords> m_state;

 private:
  template <class T>
  static void store(std::uint8_t* out, T value) {
    if constexpr (kOrder == DigestByteOrder::LittleEndian) {
      storeLittleEndian(out, value);
    } else {
      storeBigEndian(out, value);
    }
  }
  void transform(const std::uint8_t* block) { static_cast<Algorithm*>(this)->transform(block); }

  std::uint64_t m_length = 0;  // bytes fed so far
  std::array<std::uint8_t, kBlockSize> m_buffer{};
  std::size_t m_buffered = 0;  // bytes waiting in the incomplete block
};

}  // namespace krv

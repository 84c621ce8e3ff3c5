#pragma once
// BlockBuffer: cuts a stream of bytes into the 64-byte blocks a digest's compression function
// takes, keeping the incomplete tail for the next update. Shared by the MD5 and SHA-256 digests.
// One owner, one thread.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace krv {

class BlockBuffer {
 public:
  static constexpr std::size_t kBlockSize = 64;

  // Calls transform(const std::uint8_t* block) for every complete block of the stream so far.
  template <class Transform>
  void feed(std::span<const std::uint8_t> bytes, Transform&& transform) {
    m_length += bytes.size();
    std::size_t offset = 0;
    if (m_buffered > 0) {
      std::size_t take = std::min(bytes.size(), kBlockSize - m_buffered);
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

  enum class LengthOrder { LittleEndian, BigEndian };

  // The padding both digests use: 0x80, zeros up to 56 bytes into a block, then the length of
  // the stream in bits as 64 bits in the given byte order.
  template <class Transform>
  void pad(LengthOrder order, Transform&& transform) {
    const std::uint64_t bitLength = m_length * 8;
    std::uint8_t padding[kBlockSize + 8] = {0x80};
    std::size_t zeros = (m_buffered < 56 ? 56 : 120) - m_buffered;
    std::uint8_t* length = padding + zeros;
    for (int i = 0; i < 8; ++i) {
      int shift = order == LengthOrder::LittleEndian ? 8 * i : 56 - 8 * i;
      length[i] = static_cast<std::uint8_t>(bitLength >> shift);
    }
    feed(std::span<const std::uint8_t>(padding, zeros + 8), transform);
  }

  // Bytes fed so far, and bytes waiting in the incomplete block.
  std::uint64_t length() const { return m_length; }
  std::size_t buffered() const { return m_buffered; }

 private:
  std::uint64_t m_length = 0;
  std::array<std::uint8_t, kBlockSize> m_buffer{};
  std::size_t m_buffered = 0;
};

}  // namespace krv

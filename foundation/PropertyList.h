#pragma once
// Property lists: reading of XML, binary ("bplist00") and old-style (OpenStep) property lists into
// the object model, and writing of XML.
//
// Value mapping: string, integer (signed 64-bit; binary lists may also hold unsigned values up to
// 2^64-1), real, boolean, date (converted to seconds since 1970), data, array and dictionary (key
// order kept). Sets and objects have no property-list form: writing them fails with EINVAL.
//
// Readers treat their input as hostile: bounded nesting (kMaximumPropertyListDepth), no
// allocation beyond what the input can justify, cycles and out-of-range references in binary
// lists rejected, duplicate dictionary keys rejected. A parse failure is an error of domain
// kPropertyListErrorDomain, code kPropertyListReadCorruptError, whose user information holds a
// human-readable description under "NSDebugDescription" (for example "line 12: unexpected
// </array> inside <dict>").
//
// Stateless and thread-safe.

#include <cstdint>
#include <span>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv::plist {

inline constexpr std::string_view kPropertyListErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::int64_t kPropertyListReadCorruptError = 3840;
inline constexpr int kMaximumPropertyListDepth = 128;

enum class Format { Xml, Binary, OpenStep };

// Detects the format ("bplist00" magic, an XML declaration or "<plist", else OpenStep) and reads.
Result<Value> read(std::span<const std::uint8_t> bytes);
Result<Value> readXml(std::span<const std::uint8_t> bytes);
Result<Value> readBinary(std::span<const std::uint8_t> bytes);
Result<Value> readOpenStep(std::span<const std::uint8_t> bytes);

// The XML form (UTF-8, with the usual XML declaration and DOCTYPE), tab-indented.
Result<Data> writeXml(const Value& root);

// The human-readable description of a parse error ("" for other errors).
std::string describeParseError(const Error& error);

}  // namespace krv::plist

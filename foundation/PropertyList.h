#pragma once
// Property lists: reading of XML, binary ("bplist00") and old-style (OpenStep) property lists into
// the object model, and writing of XML.
//
// Value mapping: string, integer (-2^63 to 2^64-1), real, boolean, date (converted to seconds
// since 1970), data, array and dictionary (key order kept); binary lists may also hold sets. Sets
// and objects have no XML form: writing them fails with EINVAL.
//
// Readers treat their input as hostile: bounded nesting (at most kMaximumPropertyListDepth arrays
// and dictionaries inside one another, the top level included), no allocation beyond what the
// input can justify, cycles and out-of-range references in binary lists rejected, duplicate
// dictionary keys rejected. A parse failure is an error of domain kPropertyListErrorDomain, code
// kPropertyListReadCorruptError, whose user information holds a human-readable description under
// "NSDebugDescription" (for example "line 12: unexpected </array> inside <dict>"; binary lists
// give a byte offset instead of a line).
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

// Detects the format and reads: "bplist" at the start means binary; after an optional UTF-8 byte
// order mark and white space, "<?", "<!" or an element tag ("<plist", "<dict", ...) means XML;
// anything else is read as OpenStep.
//
// XML: the <plist> wrapper may be left out, in which case the root element is the value. The
// DOCTYPE is never fetched and one with an internal subset is refused; the encoding must be UTF-8.
// Integers range from -2^63 to 2^64-1 (decimal or 0x-hexadecimal); reals also read "nan", "inf",
// "-inf"; dates are "YYYY-MM-DDThh:mm:ssZ" for years 0000 to 9999.
// Binary: integers of 1, 2 and 4 bytes are unsigned, 8 bytes signed, 16 bytes only when the value
// fits 64 bits; a set becomes a Set (and must not repeat an element); null, UID and ordered-set
// objects are refused. The tree built from shared references is capped in size in proportion to
// the input ("billion laughs" lists fail).
// OpenStep: every scalar is a string; a top level of key = value; pairs without braces (the
// strings-file form) is a dictionary; an input without any value is an error.
// No reader produces a string holding U+0000.
Result<Value> read(std::span<const std::uint8_t> bytes);
Result<Value> readXml(std::span<const std::uint8_t> bytes);
Result<Value> readBinary(std::span<const std::uint8_t> bytes);
Result<Value> readOpenStep(std::span<const std::uint8_t> bytes);

// The XML form (UTF-8, with the usual XML declaration and DOCTYPE), tab-indented. Dates are
// written to the whole second (rounded down); reals in the shortest form that reads back exactly.
// Fails with EINVAL (POSIX domain) for a set, an object, a string or key that holds U+0000 or is
// not UTF-8, a date outside years 0000 to 9999, and nesting deeper than
// kMaximumPropertyListDepth.
Result<Data> writeXml(const Value& root);

// The human-readable description of a parse error ("" for other errors).
std::string describeParseError(const Error& error);

}  // namespace krv::plist

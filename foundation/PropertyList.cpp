#include "foundation/PropertyList.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <vector>

#include "foundation/Format.h"
#include "foundation/PropertyListSupport.h"

namespace krv::plist {

namespace {

constexpr std::string_view kDebugDescriptionKey = "NSDebugDescription";

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// "<" and a name with a letter that is no hexadecimal digit: an element such as <plist> or
// <dict>, never the start of old-style data (<0fbd 77>). "<?" and "<!" cannot begin an old-style
// list either.
bool startsWithXmlTag(std::string_view text) {
  if (text.empty() || text.front() != '<') return false;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!letter) return false;
    if (!((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return true;
  }
  return false;
}

}  // namespace

Result<Value> read(std::span<const std::uint8_t> bytes) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  // Any "bplist" header goes to the binary reader, which names the unsupported versions.
  if (startsWith(text, "bplist")) return readBinary(bytes);
  if (startsWith(text, "\xEF\xBB\xBF")) text.remove_prefix(3);
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start != std::string_view::npos) {
    text.remove_prefix(start);
    if (startsWith(text, "<?") || startsWith(text, "<!") || startsWithXmlTag(text)) {
      return readXml(bytes);
    }
  }
  return readOpenStep(bytes);
}

std::string describeParseError(const Error& error) {
  if (!error.is(kPropertyListErrorDomain, kPropertyListReadCorruptError)) return {};
  const Value* description = error.userInfo().find(kDebugDescriptionKey);
  if (description == nullptr || description->asString() == nullptr) return {};
  return *description->asString();
}

namespace detail {

Error parseError(std::string description) {
  Dictionary userInfo;
  userInfo.append(std::string(kDebugDescriptionKey), Value(std::move(description)));
  return Error(std::string(kPropertyListErrorDomain), kPropertyListReadCorruptError,
               std::move(userInfo));
}

std::size_t lineAt(std::string_view text, std::size_t offset) {
  const std::size_t end = std::min(offset, text.size());
  return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + end, '\n'));
}

std::string printableForMessage(std::string_view text) {
  constexpr std::size_t kLimit = 40;
  std::string out;
  for (std::size_t i = 0; i < text.size() && i < kLimit; ++i) {
    const char c = text[i];
    out += (c >= 0x20 && c < 0x7F && c != '"') ? c : '?';
  }
  if (text.size() > kLimit) out += "...";
  return out;
}

std::string quoteForMessage(std::string_view text) { return '"' + printableForMessage(text) + '"'; }

bool ParseFailure::record(std::uint64_t offset, std::string message) {
  if (m_message.empty()) {
    m_offset = offset;
    m_message = std::move(message);
  }
  return false;
}

Result<Value> TextReader::run() {
  Value root("");
  if (parseDocument(root)) return root;
  return parseError(format("line %zu: %s",
                           lineAt(m_text, static_cast<std::size_t>(m_failure.offset())),
                           m_failure.message().c_str()));
}

bool TextReader::finishDictionary(Dictionary dictionary, const std::vector<std::size_t>& keyOffsets,
                                  Value& out) {
  if (const std::optional<std::size_t> duplicate = findDuplicateKey(dictionary.entries())) {
    return fail(keyOffsets[*duplicate],
                "duplicate key " + quoteForMessage(dictionary.entries()[*duplicate].first));
  }
  out = Value(std::move(dictionary));
  return true;
}

}  // namespace detail

}  // namespace krv::plist

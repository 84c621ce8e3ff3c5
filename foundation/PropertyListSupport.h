#pragma once
// Pieces shared by the property-list readers: the parse error and how a reader records its first
// failure. Internal to the foundation library; not part of its interface. (UTF-8, base64, dates
// and the duplicate-key check have their own homes: Utf8.h, Base64.h, IsoDate.h, Value.h.)
//
// The functions are pure and thread-safe; a reader object belongs to one thread. Readers report
// failure through their first recorded failure, never by throwing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Error.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv::plist::detail {

// The error every reader returns: kPropertyListErrorDomain / kPropertyListReadCorruptError with
// the description under "NSDebugDescription".
Error parseError(std::string description);

// 1 + the number of line feeds before `offset` (offset clamped to the text).
std::size_t lineAt(std::string_view text, std::size_t offset);

// A short, printable, ASCII-only rendering of untrusted text for error messages: at most 40
// characters, anything but printable ASCII (and '"') shown as '?'. quoteForMessage adds quotes.
std::string printableForMessage(std::string_view text);
std::string quoteForMessage(std::string_view text);

// The first failure a reader meets, kept while the levels above it give up in turn: where it
// happened (a byte offset into the input) and what.
class ParseFailure {
 public:
  // Records the failure unless one is recorded already. False, so that `return fail(...)` ends the
  // parsing function that met it.
  bool record(std::uint64_t offset, std::string message);
  std::uint64_t offset() const { return m_offset; }
  const std::string& message() const { return m_message; }

 private:
  std::uint64_t m_offset = 0;
  std::string m_message;
};

// What the readers of text lists (XML, OpenStep) share: the text, the read position, the first
// failure and its report by line, and the check of a dictionary's keys.
class TextReader {
 public:
  virtual ~TextReader() = default;
  TextReader(const TextReader&) = delete;
  TextReader& operator=(const TextReader&) = delete;

  // Parses the whole text: the root value, or the first failure as "line N: message".
  Result<Value> run();

 protected:
  explicit TextReader(std::span<const std::uint8_t> bytes)
      : m_text(reinterpret_cast<const char*>(bytes.data()), bytes.size()) {}

  virtual bool parseDocument(Value& root) = 0;

  bool fail(std::size_t offset, std::string message) {
    return m_failure.record(offset, std::move(message));
  }
  bool atEnd() const { return m_pos >= m_text.size(); }
  bool lookingAt(std::string_view prefix) const {
    return m_text.substr(m_pos, prefix.size()) == prefix;
  }
  // Makes `out` the dictionary just read, unless a key repeats: that fails at the offset where
  // the repeated key stands (keyOffsets holds one offset per entry).
  bool finishDictionary(Dictionary dictionary, const std::vector<std::size_t>& keyOffsets,
                        Value& out);

  std::string_view m_text;
  std::size_t m_pos = 0;

 private:
  ParseFailure m_failure;
};

}  // namespace krv::plist::detail

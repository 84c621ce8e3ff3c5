#pragma once
// How securityagentctl shows what the daemon sends: a progress bar for progress reports, found
// objects as they arrive, live program output on the client's own output streams, and the final
// result readably or as JSON. The readable text shows every string and name escaped (escapedName
// of foundation/NameValue.h) except a program's own output; the JSON is a lossless picture of the
// values as they came. Used by the client's one thread.

#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "protocol/ObjectRecordChunk.h"
#include "tools/securityagentctl/ComparisonReport.h"
#include "tools/securityagentctl/ErrorDescription.h"
#include "tools/securityagentctl/ProgressBar.h"

namespace krv::ctl {

// A value as JSON (pure ASCII): text as strings, byte strings (data, and names that are not UTF-8)
// as {"base64": text}, dates as ISO 8601 UTC text, sets as arrays, objects as
// {"class": name, items...} (the keyed items; a dictionary of names, whose keys may be any bytes,
// as an array of its entries with "Name" added).
std::string toJson(const Value& value);
// The final result as one JSON document: {"domain": ..., "code": ..., "userInfo": {...}}.
std::string resultToJson(const Error& result);

class ResultPrinter {
 public:
  // `progressLines`: --progress, progress as lines also when the output is no terminal.
  ResultPrinter(bool json, bool quiet, bool progressLines = false);

  // Shows the records of a folder comparison of these folders as lines, with a summary at the end.
  void showComparison(std::string_view firstFolder, std::string_view secondFolder);

  // The command being run: a failure is then one line naming what could not be done, the path
  // and the reason (describeFailure), followed by the result's details.
  void describeFailuresOf(std::uint32_t code, Array arguments);

  void report(const Error& report);
  // A payload chunk of object records read in place: shown exactly as report() shows the same
  // chunk, one line per record, written with one write.
  void reportRecords(double progress, std::span<const ObjectRecordView> records);
  // Whether reportRecords may be given the chunks (the text output; the JSON output takes values).
  bool showsRecordViews() const { return !m_json; }
  void finish(const Error& result);

 private:
  void drawProgress(double progress);
  void endProgress();
  std::string failureHeadline(const Error& result) const;

  bool m_json;
  ProgressBar m_progress;
  std::string m_lines;  // the lines of one chunk, kept between chunks for its capacity
  std::optional<ComparisonLines> m_comparison;
  std::optional<std::uint32_t> m_commandCode;
  Array m_commandArguments;
};

}  // namespace krv::ctl

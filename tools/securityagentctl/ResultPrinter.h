#pragma once
// How securityagentctl shows what the daemon sends: a progress bar for progress reports, found
// objects as they arrive, live program output on the client's own output streams, and the final
// result readably or as JSON. The readable text shows every string and name escaped (escapedName
// of foundation/NameValue.h) except a program's own output; the JSON is a lossless picture of the
// values as they came. Used by the client's one thread.

#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "protocol/ObjectRecordChunk.h"
#include "tools/securityagentctl/ComparisonReport.h"

namespace krv::ctl {

// A value as JSON (pure ASCII): text as strings, byte strings (data, and names that are not UTF-8)
// as {"base64": text}, dates as ISO 8601 UTC text, sets as arrays, objects as
// {"class": name, items...} (the keyed items; a dictionary of names, whose keys may be any bytes,
// as an array of its entries with "Name" added).
std::string toJson(const Value& value);
// The final result as one JSON document: {"domain": ..., "code": ..., "userInfo": {...}}.
std::string resultToJson(const Error& result);
// A readable explanation of a result code ("" when there is nothing to add).
std::string explainResult(const Error& result);

class ResultPrinter {
 public:
  ResultPrinter(bool json, bool quiet);

  // Shows the records of a folder comparison of these folders as lines, with a summary at the end.
  void showComparison(std::string_view firstFolder, std::string_view secondFolder);

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

  bool m_json;
  bool m_showProgress;
  bool m_progressShown = false;
  std::string m_lines;  // the lines of one chunk, kept between chunks for its capacity
  std::optional<ComparisonLines> m_comparison;
};

}  // namespace krv::ctl

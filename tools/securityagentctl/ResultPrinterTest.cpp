#include "tools/securityagentctl/ResultPrinter.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/Archiver.h"
#include "foundation/NameValue.h"
#include "foundation/UserInformationKeys.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv::ctl {
namespace {

// A file's times are whatever its owner set: the text is ISO 8601 with four-digit years where
// that form exists, and the seconds elsewhere.
TEST(ResultPrinterTest, WritesEveryDateAFileCanCarry) {
  const std::pair<double, std::string> dates[] = {
      {1706702400.0, "\"2024-01-31T12:00:00Z\""},
      {-62135596800.0, "\"0001-01-01T00:00:00Z\""},
      {253402300800.0, "\"253402300800\""},
      {NAN, "\"nan\""},
  };
  for (const auto& [seconds, json] : dates) {
    EXPECT_EQ(toJson(Value(Date{seconds})), json) << seconds;
  }
  EXPECT_EQ(toJson(Value(Data{0xff, 0xfe, 'a'})), "{\"base64\":\"//5h\"}");
}

// What `show` writes to the standard output.
template <class Show>
std::string capturedOutput(Show show) {
  std::FILE* file = std::tmpfile();
  const int saved = ::dup(STDOUT_FILENO);
  ::dup2(::fileno(file), STDOUT_FILENO);
  show();
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  std::string text;
  std::rewind(file);
  for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
  std::fclose(file);
  return text;
}

// The lines of records read in place are those of the same records decoded as values, for names
// that must be escaped, sizes and modes of every width and dates with and without an ISO form.
TEST(ResultPrinterTest, RecordViewsPrintAsTheirValues) {
  struct Record {
    std::string path;
    std::uint64_t size;
    double date;
    std::uint64_t mode;
  };
  const std::vector<Record> records = {
      {"/plain/name.dat", 0, 1706702400.75, 0644},
      {"/tab\there\\\n\r", 18446744073709551615ull, -62135596800.0, 07777},
      {"/bad\xff\xc3(\x1b[31m\u202e", 1, -0.5, 0},
      {"/\xc3\xa9t\xc3\xa9", 100, 253402300800.0, 01},
      {"/nan", 7, NAN, 0100644},
  };
  Array array;
  for (const Record& record : records) {
    Dictionary dictionary;
    dictionary.append(std::string(key::kPath), nameValue(record.path));
    dictionary.append(std::string(key::kType), Value("NSFileTypeRegular"));
    dictionary.append(std::string(key::kSize), Value::unsignedInteger(record.size));
    dictionary.append(std::string(key::kModificationDate), Value(Date{record.date}));
    dictionary.append(std::string(key::kPOSIXMode), Value::unsignedInteger(record.mode));
    array.push_back(Value(std::move(dictionary)));
  }
  Dictionary info;
  info.append(std::string(key::kCurrentProgress), Value(Number::real(0.5)));
  info.append(std::string(key::kFileSystemObjects), Value(std::move(array)));
  const Error chunk(std::string(kTransportErrorDomain), kTransportIntermediateReport, info);

  const Data payload = archiveSequential(chunk);
  std::vector<ObjectRecordView> views;
  double progress = 0;
  ASSERT_TRUE(readObjectRecordChunk(payload, progress, views));
  ResultPrinter printer(false, true);
  const std::string fromViews = capturedOutput([&] { printer.reportRecords(progress, views); });
  const std::string fromValues = capturedOutput([&] { printer.report(chunk); });
  EXPECT_EQ(fromViews, fromValues);
  EXPECT_NE(fromViews.find("/plain/name.dat\tNSFileTypeRegular\t0\t2024-01-31T12:00:00Z\t0644\n"),
            std::string::npos)
      << fromViews;
}

}  // namespace
}  // namespace krv::ctl

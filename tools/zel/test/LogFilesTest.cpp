// LogFilesTest.cpp - the zel tool reads the log by the library's own rules:
// numbered names matched and numbered as the rotation does, record lines
// taken apart as the library composes them, time stamps placed in time as
// the library writes them.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "LogFiles.h"
#include "internal/LogFile.h"
#include "internal/LogFileNames.h"
#include "internal/TimeStamp.h"
#include "support/TempDir.h"

namespace {

TEST(LogFiles, NumberedNamesMatchAsTheRotationMatchesThem) {
  const std::string base = "zel.log";
  const std::vector<std::string> names = {
      "zel.log.1",    "zel.log.10",   "zel.log.999999", "zel.log.",       "zel.log.+7",     "zel.log. 7",
      "zel.log.007",  "zel.log.-3",   "zel.logX9",      "zel.log.7.gz",   "zel.log",        "backup-zel.log-3",
      "a-zel.log.5",  "zel.log.12a",  "zel.log.1 ",     "zel.log.4294967297", "zel.log.99999999999999999999",
      "xzel.log",     ".",            "..",             "zel.log.0x10",   "zel.log.2147483648"};
  for (const std::string& name : names) {
    uint64_t libraryNumber = 0;
    int32_t toolNumber = 0;
    const bool library = Zel::internal::matchLogFileName(name, base, libraryNumber);
    const bool tool = ZelTool::matchNumberedName(name, base, toolNumber);
    EXPECT_EQ(library, tool) << name;
    // The rotation narrows the number to 32 bits as it stores it.
    if (library && tool) {
      EXPECT_EQ(static_cast<int32_t>(libraryNumber), toolNumber) << name;
    }
  }
}

TEST(LogFiles, ScanGivesNumberedFilesByNumberThenTheLiveFile) {
  ZelTest::TempDir dir;
  const std::vector<std::string> files = {"zel.log", "zel.log.2", "zel.log.10", "zel.log.9", "zel.log.1",
                                          "zel.log.100", "zel.log.7.gz", "other.log.3"};
  for (const std::string& name : files) std::ofstream(dir.path() + "/" + name) << name << "\n";
  ZelTool::LogLocation location = ZelTool::logLocationFor(dir.path());
  std::vector<ZelTool::LogFileEntry> found;
  std::string error;
  ASSERT_TRUE(ZelTool::scanLog(location, found, error)) << error;
  std::vector<std::string> order;
  for (const ZelTool::LogFileEntry& entry : found) order.push_back(entry.path.substr(entry.path.rfind('/') + 1));
  EXPECT_EQ(order, (std::vector<std::string>{"zel.log.1", "zel.log.2", "zel.log.9", "zel.log.10", "zel.log.100",
                                             "zel.log"}));
  EXPECT_TRUE(found.back().live);
}

TEST(LogFiles, ScanOfAMissingDirectoryFails) {
  ZelTool::LogLocation location = ZelTool::logLocationFor("/nonexistent-zel-dir/zel.log");
  std::vector<ZelTool::LogFileEntry> found;
  std::string error;
  EXPECT_FALSE(ZelTool::scanLog(location, found, error));
  EXPECT_NE(error.find("/nonexistent-zel-dir"), std::string::npos) << error;
}

// Lines composed by the library's one composer of file lines come apart
// into what went in.
TEST(LogFiles, RecordLinesComeApartAsTheLibraryComposesThem) {
  struct Case {
    const char* stamp;
    const char* tag;
    const char* tail;
    int line;
    const char* function;
    const char* message;
  };
  const Case cases[] = {
      {"2026-03-01T12:00:00.512+01:00", "ER", nullptr, 0, "signal", "Failed to write signal. Errno 32"},
      {"2026-03-01T12:00:00.42-05:30", "IN", nullptr, 0, "f", "  leading blanks kept"},
      {"2026-03-01T12:00:00.0+00:00", "EM", nullptr, 0, "a_function_name_longer_than_25_columns", "msg"},
      {"2026-03-01T12:00:00.999+14:00", "WA", nullptr, 0, "", "empty function"},
      {"2026-03-01T12:00:00.1+00:00", "NO", nullptr, 0, "f", ""},
      {"2026-03-01T12:00:00.123+02:00", "TR", "PipeExt.cpp", 123, "signal", "debug text"},
      {"2026-03-01T12:00:00.5+02:00", "TR", "a_rather_long_source_file_name.cpp", 99999, "g", "x"},
  };
  const int levels[] = {3, 6, 0, 4, 5, ZelTool::DEBUG_RECORD_LEVEL, ZelTool::DEBUG_RECORD_LEVEL};
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
    const Case& c = cases[i];
    char record[Zel::internal::kRecordSize];
    const std::string stamp = c.stamp;
    Zel::internal::composeLine(record, sizeof(record), stamp.c_str(), stamp.size(), c.tag, c.tail, c.line,
                               c.function, c.message);
    const ZelTool::LogRecord parsed = ZelTool::parseRecordLine(record);
    ASSERT_TRUE(parsed.isRecord) << record;
    EXPECT_EQ(parsed.stamp, stamp);
    EXPECT_EQ(parsed.tag, c.tag);
    EXPECT_EQ(parsed.level, levels[i]);
    EXPECT_EQ(parsed.function, c.function) << record;
    EXPECT_EQ(parsed.message, c.message) << record;
    if (c.tail != nullptr) {
      EXPECT_EQ(parsed.source, std::string(c.tail) + ":" + std::to_string(c.line));
    }
  }
}

TEST(LogFiles, LinesThatAreNoRecords) {
  for (const char* line : {"", "raw text", "2026-03-01T12:00:00.5+01:00", "2026-03-01T12:00:00.5+01:00 XX f m",
                           "2026-03-01T12:00:00+01:00 IN f                         no fraction",
                           "2026-03-01T12:00:00.1234+01:00 IN f                         four digits",
                           "2026-03-01 12:00:00.5+01:00 IN f                         blank for T"})
    EXPECT_FALSE(ZelTool::parseRecordLine(line).isRecord) << line;
}

// The library's stamps, for times across a year and in zones east and west,
// are placed at their own second; the fraction does not move them.
TEST(LogFiles, TimeStampsArePlacedAtTheirSecond) {
  const char* const zones[] = {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0", "<+0530>-5:30"};
  const char* saved = std::getenv("TZ");
  const std::string savedZone = saved != nullptr ? saved : "";
  for (const char* zone : zones) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    for (time_t second = 1767225600; second < 1767225600 + 366 * 86400; second += 86400 * 7 + 3671) {
      for (long micro : {0L, 42L, 5123L, 999999L}) {
        struct tm local;
        ASSERT_NE(::localtime_r(&second, &local), nullptr);
        char stamp[30];
        Zel::internal::formatTimeStamp(stamp, sizeof(stamp), micro, &local);
        time_t parsed = 0;
        ASSERT_TRUE(ZelTool::parseTimeStamp(stamp, parsed)) << stamp;
        EXPECT_EQ(parsed, second) << stamp << " in " << zone;
        const std::string line = std::string(stamp) + " IN f                         m";
        EXPECT_EQ(ZelTool::parseRecordLine(line).seconds, second) << line;
      }
    }
  }
  if (saved != nullptr)
    ::setenv("TZ", savedZone.c_str(), 1);
  else
    ::unsetenv("TZ");
  ::tzset();
}

TEST(LogFiles, ShorterTimeStamps) {
  time_t seconds = 0;
  ASSERT_TRUE(ZelTool::parseTimeStamp("2026-03-01T12:00:00Z", seconds));
  EXPECT_EQ(seconds, 1772366400);
  ASSERT_TRUE(ZelTool::parseTimeStamp("2026-03-01T13:00+01:00", seconds));
  EXPECT_EQ(seconds, 1772366400);
  ASSERT_TRUE(ZelTool::parseTimeStamp("2026-03-01 07:00:00.9-05:00", seconds));
  EXPECT_EQ(seconds, 1772366400);
  for (const char* bad : {"", "2026", "2026-3-1", "2026-03-01T", "2026-03-01T25:00", "2026-03-01T12:00:00.",
                          "2026-03-01T12:00:00+1", "2026-13-01", "2026-03-01x", "2026-03-01T12:00:00 +01:00"})
    EXPECT_FALSE(ZelTool::parseTimeStamp(bad, seconds)) << bad;
}

TEST(LogFiles, JsonStrings) {
  EXPECT_EQ(ZelTool::jsonString("plain"), "\"plain\"");
  EXPECT_EQ(ZelTool::jsonString("q\"b\\"), "\"q\\\"b\\\\\"");
  EXPECT_EQ(ZelTool::jsonString(std::string("\x01\t\x7f", 3)), "\"\\u0001\\u0009\\u007f\"");
  EXPECT_EQ(ZelTool::jsonString("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"");
  // Not UTF-8: shown as the log shows escaped bytes.
  EXPECT_EQ(ZelTool::jsonString("a\xff" "b\xc3"), "\"a\\\\xffb\\\\xc3\"");
  EXPECT_EQ(ZelTool::jsonString("\xed\xa0\x80"), "\"\\\\xed\\\\xa0\\\\x80\"");
}

TEST(LogFiles, Levels) {
  int level = -1;
  EXPECT_TRUE(ZelTool::parseLevelName("err", level));
  EXPECT_EQ(level, 3);
  EXPECT_TRUE(ZelTool::parseLevelName("WA", level));
  EXPECT_EQ(level, 4);
  EXPECT_TRUE(ZelTool::parseLevelName("8", level));
  EXPECT_EQ(level, ZelTool::DEBUG_RECORD_LEVEL);
  EXPECT_TRUE(ZelTool::parseLevelName("panic", level));
  EXPECT_EQ(level, 0);
  for (const char* bad : {"", "9", "-1", "07", "loud", "e"}) EXPECT_FALSE(ZelTool::parseLevelName(bad, level)) << bad;
}

}  // namespace

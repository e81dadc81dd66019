// Tests of the local-time cache behind the local-file time stamp: a process
// that changes TZ and calls tzset() gets the new offset in the next stamp,
// even within the same second.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "internal/TimeStamp.h"
#include "support/ChildProcess.h"
#include "support/LogLines.h"
#include "support/TempDir.h"
#include "support/WrapperFixture.h"

namespace {

// POSIX TZ values that need no zone database: a name and the offset west of
// UTC. The stamp's offset is east of UTC, hence the opposite sign.
struct Zone {
  const char* tz;
  const char* offset;  // as the stamp shows it
};
const Zone kZones[] = {
    {"UTC0", "+00:00"},
    {"AAA-5:45", "+05:45"},
    {"BBB+3:30", "-03:30"},
    {"CCC-13", "+13:00"},
};

void switchZone(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

// The offset at the end of a stamp ("...+05:45").
std::string offsetOf(const std::string& stamp) { return stamp.size() >= 6 ? stamp.substr(stamp.size() - 6) : ""; }

// The text formatTimeStamp gives for `now` with localtime_r's view at this moment.
std::string expectedStamp(const struct timeval& now) {
  struct tm local;
  char text[30];
  const bool valid = localtime_r(&now.tv_sec, &local) != nullptr;
  return Zel::internal::formatTimeStamp(text, 30, static_cast<long>(now.tv_usec), valid ? &local : nullptr);
}

// Child bodies: each ends the child with 0 when all its checks held.
void zoneSwitchedThreeTimesWithinOneSecond() {
  Zel::internal::LocalTimeCache cache;
  struct timeval now;
  now.tv_sec = 1700000000;
  now.tv_usec = 512345;
  for (const Zone& zone : kZones) {
    switchZone(zone.tz);
    char got[30];
    const std::string stamp = cache.format(got, 30, now);
    CHILD_EXPECT_EQ(std::string(zone.offset), offsetOf(stamp));
    CHILD_EXPECT_EQ(expectedStamp(now), stamp);
  }
  _exit(0);
}

TEST(TimeStampCache, ZoneSwitchedThreeTimesWithinOneSecondGivesEachZonesOffset) {
  EXPECT_EXIT(zoneSwitchedThreeTimesWithinOneSecond(), ::testing::ExitedWithCode(0), "");
}

void writeSeesTheZoneChange() {
  Zel::internal::LocalTimeCache cache;
  struct timeval now;
  now.tv_sec = 1700000000;
  now.tv_usec = 42;
  for (const Zone& zone : kZones) {
    switchZone(zone.tz);
    char out[Zel::internal::LocalTimeCache::kMaxStampLength];
    const std::string stamp(out, cache.write(out, now));
    CHILD_EXPECT_EQ(expectedStamp(now), stamp);
  }
  _exit(0);
}

TEST(TimeStampCache, WriteSeesTheZoneChangeAsFormatDoes) {
  EXPECT_EXIT(writeSeesTheZoneChange(), ::testing::ExitedWithCode(0), "");
}

void sameZoneKeepsTheCache() {
  switchZone("AAA-5:45");
  Zel::internal::LocalTimeCache cache;
  struct timeval now;
  now.tv_sec = 1700000000;
  now.tv_usec = 0;
  char got[30];
  cache.format(got, 30, now);
  CHILD_EXPECT(cache.isCurrent(now.tv_sec));
  CHILD_EXPECT(!cache.isCurrent(now.tv_sec + 1));
  // Setting the same zone again changes nothing tzset() leaves behind.
  switchZone("AAA-5:45");
  CHILD_EXPECT(cache.isCurrent(now.tv_sec));
  switchZone("AAA-6");
  CHILD_EXPECT(!cache.isCurrent(now.tv_sec));
  _exit(0);
}

TEST(TimeStampCache, SameZoneAndSecondKeepTheCachedPieces) {
  EXPECT_EXIT(sameZoneKeepsTheCache(), ::testing::ExitedWithCode(0), "");
}

// Writes one record per zone through log_printf and returns the file's
// stamps; the caller checks that they fell within one second.
std::vector<std::string> stampsOfRecords(const std::string& dir) {
  Zel::LoggingWrapper* wrapper = ZelTest::makeWrapper(dir);
  for (const Zone& zone : kZones) {
    switchZone(zone.tz);
    wrapper->log_printf("zoneSwitch", 3, 1, "in %s", zone.tz);
  }
  ZelTest::closeWrapperFile(wrapper);
  std::vector<std::string> stamps;
  for (const std::string& line : ZelTest::splitLines(ZelTest::readFile(dir + "/zel.log")))
    stamps.push_back(line.substr(0, line.find(' ')));
  return stamps;
}

// The seconds field "ss" of a stamp. Offsets are whole minutes, so records
// of one wall-clock second show the same field in every zone, and records
// less than a minute apart show different fields for different seconds.
std::string secondOf(const std::string& stamp) { return stamp.substr(17, 2); }

TEST(TimeStampCache, FileRecordsCarryTheOffsetOfTheirMoment) {
  ZelTest::TempDir tmp;
  EXPECT_EXIT(
      {
        // The records must share one second for the test to mean anything;
        // start just after a second boundary and try again if one slipped by.
        for (int attempt = 0; attempt < 5; ++attempt) {
          struct timeval now;
          gettimeofday(&now, nullptr);
          if (now.tv_usec > 500000) usleep(static_cast<useconds_t>(1000000 - now.tv_usec + 1000));
          const std::string dir = tmp.file("attempt" + std::to_string(attempt));
          CHILD_EXPECT(mkdir(dir.c_str(), 0700) == 0);
          const std::vector<std::string> stamps = stampsOfRecords(dir);
          CHILD_EXPECT_EQ(sizeof(kZones) / sizeof(kZones[0]), stamps.size());
          bool oneSecond = true;
          for (const std::string& stamp : stamps) oneSecond = oneSecond && secondOf(stamp) == secondOf(stamps[0]);
          if (!oneSecond) continue;
          for (size_t i = 0; i < stamps.size(); ++i)
            CHILD_EXPECT_EQ(std::string(kZones[i].offset), offsetOf(stamps[i]));
          _exit(0);
        }
        std::fputs("no attempt kept its records within one second\n", stderr);
        _exit(2);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(TimeStampCache, FillInTimeStrFollowsTheZone) {
  EXPECT_EXIT(
      {
        for (const Zone& zone : kZones) {
          switchZone(zone.tz);
          char buffer[30];
          CHILD_EXPECT_EQ(std::string(zone.offset), offsetOf(Zel::fill_in_time_str(buffer, 30)));
        }
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

// TimeStamp.h - the local-file time stamp, split so each step can be tested
// without waiting on the clock.
#ifndef ZEL_INTERNAL_TIME_STAMP_H
#define ZEL_INTERNAL_TIME_STAMP_H

#include <sys/time.h>

#include <ctime>

namespace Zel {
namespace internal {

// Formats "YYYY-MM-DDThh:mm:ss.<fraction><sign>hh:mm" into buffer (cut to
// size; a full stamp is 29 characters) and returns buffer. `local` is the
// broken-down local time, or null when it could not be computed (all fields
// then read zero: "1900-01-00T00:00:00.<fraction>+00:00"). The fraction is
// the first three characters of the microsecond count written as a plain
// number: 5123 -> "512", 42 -> "42", 0 -> "0".
char* formatTimeStamp(char* buffer, int size, long microseconds, const struct tm* local);

// Local time of the current wall-clock second, computed with localtime_r at
// most once per second and time zone. Not thread-safe: the logging wrapper
// keeps one under its lock. The text it yields is identical to localtime_r's
// for that second: the parts of the stamp that only change with the second
// (the date and time before the fraction, the UTC offset after it) are
// formatted once, so a record only adds its fraction.
//
// The cached text is keyed on the second and on the time-zone state that
// tzset() leaves in tzname, timezone and daylight, so a process that changes
// TZ and calls tzset() gets the new offset in its very next stamp, not a
// second later. Checking that state costs four loads and compares per stamp.
class LocalTimeCache {
 public:
  LocalTimeCache()
      : _second(-1), _zone(), _valid(false), _local(), _prefix(), _prefixLength(0), _suffix(), _suffixLength(0) {}
  // Fills buffer with the stamp of `now`, cut to size as formatTimeStamp does.
  char* format(char* buffer, int size, const struct timeval& now);
  // Writes the stamp of `now` without a terminating NUL into out, at most
  // kMaxStampLength characters (the 29 a 30-byte buffer holds), and returns
  // how many were written: the text format(buffer, 30, now) would give.
  size_t write(char* out, const struct timeval& now);

  // The steps of write(), for callers that measure them: whether the cached
  // pieces belong to `second` in the current time zone, recomputing them, and
  // writing a stamp from them whatever second and zone they belong to.
  bool isCurrent(time_t second) const { return second == _second && ZoneState::current() == _zone; }
  void refresh(time_t second);
  size_t writeCached(char* out, long microseconds) const;

  static constexpr size_t kMaxStampLength = 29;

 private:
  // What tzset() changes when TZ changes. glibc keeps the zone names in a
  // table of unique strings, so equal pointers mean equal names.
  struct ZoneState {
    const char* standardName;
    const char* daylightName;
    long secondsWestOfUtc;
    int hasDaylightRule;

    static ZoneState current() { return ZoneState{tzname[0], tzname[1], timezone, daylight}; }
    bool operator==(const ZoneState& other) const {
      return standardName == other.standardName && daylightName == other.daylightName &&
             secondsWestOfUtc == other.secondsWestOfUtc && hasDaylightRule == other.hasDaylightRule;
    }
  };

  time_t _second;
  ZoneState _zone;  // the zone state right after the refresh's localtime_r
  bool _valid;
  struct tm _local;
  char _prefix[kMaxStampLength + 1];  // "YYYY-MM-DDThh:mm:ss.", cut to 29
  size_t _prefixLength;
  char _suffix[kMaxStampLength + 1];  // "+hh:mm", cut to 29
  size_t _suffixLength;
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_TIME_STAMP_H

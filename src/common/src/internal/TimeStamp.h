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
// most once per second. Not thread-safe: the logging wrapper keeps one under
// its lock. The text it yields is identical to localtime_r's for that second:
// the parts of the stamp that only change with the second (the date and time
// before the fraction, the UTC offset after it) are formatted once per
// second, so a record only adds its fraction.
class LocalTimeCache {
 public:
  LocalTimeCache() : _second(-1), _valid(false), _local(), _prefix(), _prefixLength(0), _suffix(), _suffixLength(0) {}
  // Fills buffer with the stamp of `now`, cut to size as formatTimeStamp does.
  char* format(char* buffer, int size, const struct timeval& now);
  // Writes the stamp of `now` without a terminating NUL into out, at most
  // kMaxStampLength characters (the 29 a 30-byte buffer holds), and returns
  // how many were written: the text format(buffer, 30, now) would give.
  size_t write(char* out, const struct timeval& now);

  static constexpr size_t kMaxStampLength = 29;

 private:
  void refresh(time_t second);

  time_t _second;
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

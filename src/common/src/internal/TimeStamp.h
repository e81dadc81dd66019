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
// its lock. The text it yields is identical to localtime_r's for that second.
class LocalTimeCache {
 public:
  LocalTimeCache() : _second(-1), _valid(false), _local() {}
  // Fills buffer with the stamp of `now`.
  char* format(char* buffer, int size, const struct timeval& now);

 private:
  time_t _second;
  bool _valid;
  struct tm _local;
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_TIME_STAMP_H

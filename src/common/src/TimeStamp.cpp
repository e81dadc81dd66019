#include "internal/TimeStamp.h"

#include <cstdio>
#include <cstdlib>

#include "LoggingWrapper.h"

namespace Zel {
namespace internal {

char* formatTimeStamp(char* buffer, int size, long microseconds, const struct tm* local) {
  struct tm fields = {};
  if (local != nullptr) fields = *local;
  // The fraction keeps the first three characters of the microsecond count
  // as written without leading zeros; 5123 us shows as 512. Kept as the
  // framework's readers expect it.
  char fraction[4];
  std::snprintf(fraction, sizeof(fraction), "%ld", microseconds);
  const long offset = fields.tm_gmtoff;
  const char sign = offset >= 0 ? '+' : '-';
  const long offsetMinutes = std::labs(offset) / 60;
  if (size <= 0) return buffer;
  std::snprintf(buffer, static_cast<size_t>(size), "%4d-%02d-%02dT%02d:%02d:%02d.%s%c%02ld:%02ld",
                fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min,
                fields.tm_sec, fraction, sign, offsetMinutes / 60, offsetMinutes % 60);
  return buffer;
}

char* LocalTimeCache::format(char* buffer, int size, const struct timeval& now) {
  if (now.tv_sec != _second) {
    _valid = localtime_r(&now.tv_sec, &_local) != nullptr;
    _second = now.tv_sec;
  }
  return formatTimeStamp(buffer, size, static_cast<long>(now.tv_usec), _valid ? &_local : nullptr);
}

}  // namespace internal

char* fill_in_time_str(char* buffer, int size) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm local;
  const bool valid = localtime_r(&now.tv_sec, &local) != nullptr;
  return internal::formatTimeStamp(buffer, size, static_cast<long>(now.tv_usec), valid ? &local : nullptr);
}

}  // namespace Zel

#include "internal/TimeStamp.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <zel/LoggingWrapper.h>

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

namespace {

// Copies at most `room` characters of text (length characters long) to out
// and returns how many were copied: snprintf's silent cut, piece by piece.
size_t copyCut(char* out, size_t room, const char* text, size_t length) {
  const size_t count = length < room ? length : room;
  std::memcpy(out, text, count);
  return count;
}

// The stamp's fraction: the first three characters of `microseconds` written
// as a plain decimal number, as "%ld" would write it: 5123 -> "512",
// 42 -> "42", 0 -> "0". Returns the number of characters (1 to 3).
size_t writeFraction(char* out, long microseconds) {
  unsigned long magnitude =
      microseconds < 0 ? 0UL - static_cast<unsigned long>(microseconds) : static_cast<unsigned long>(microseconds);
  char reversed[24];
  size_t digits = 0;
  do {
    reversed[digits++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  size_t count = 0;
  if (microseconds < 0) out[count++] = '-';
  while (count < 3 && digits > 0) out[count++] = reversed[--digits];
  return count;
}

// Lengths of "YYYY-MM-DDThh:mm:ss." and "+hh:mm".
const size_t kUsualPrefixLength = 20;
const size_t kUsualSuffixLength = 6;

// writeFraction for 0 <= value < 1000000: the first three digits of value
// (all of them below 1000) at out; returns the end of what was written.
char* writeLeadingDigits(char* out, unsigned value) {
  if (value < 10) {
    *out++ = static_cast<char>('0' + value);
    return out;
  }
  if (value < 100) {
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
  }
  const unsigned lead = value >= 100000 ? value / 1000
                        : value >= 10000  ? value / 100
                        : value >= 1000   ? value / 10
                                          : value;
  *out++ = static_cast<char>('0' + lead / 100);
  *out++ = static_cast<char>('0' + lead / 10 % 10);
  *out++ = static_cast<char>('0' + lead % 10);
  return out;
}

}  // namespace

void LocalTimeCache::refresh(time_t second) {
  _valid = localtime_r(&second, &_local) != nullptr;
  _second = second;
  // Read after localtime_r: its first call in a process sets the zone up.
  _zone = ZoneState::current();
  // The two pieces around the fraction, with the conversions formatTimeStamp
  // uses, so that prefix + fraction + suffix is its text.
  struct tm fields = {};
  if (_valid) fields = _local;
  char text[128];
  int length = std::snprintf(text, sizeof(text), "%4d-%02d-%02dT%02d:%02d:%02d.", fields.tm_year + 1900,
                             fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
  _prefixLength = copyCut(_prefix, kMaxStampLength, text, length > 0 ? static_cast<size_t>(length) : 0);
  const long offset = fields.tm_gmtoff;
  const long offsetMinutes = std::labs(offset) / 60;
  length = std::snprintf(text, sizeof(text), "%c%02ld:%02ld", offset >= 0 ? '+' : '-', offsetMinutes / 60,
                         offsetMinutes % 60);
  _suffixLength = copyCut(_suffix, kMaxStampLength, text, length > 0 ? static_cast<size_t>(length) : 0);
}

size_t LocalTimeCache::write(char* out, const struct timeval& now) {
  if (!isCurrent(now.tv_sec)) refresh(now.tv_sec);
  return writeCached(out, static_cast<long>(now.tv_usec));
}

size_t LocalTimeCache::writeCached(char* out, long microseconds) const {
  if (_prefixLength == kUsualPrefixLength && _suffixLength == kUsualSuffixLength && microseconds >= 0 &&
      microseconds < 1000000) {
    // The usual shape, a four-digit year and an offset below 100 hours:
    // fixed-size copies and the fraction's digits by hand.
    std::memcpy(out, _prefix, kUsualPrefixLength);
    char* end = writeLeadingDigits(out + kUsualPrefixLength, static_cast<unsigned>(microseconds));
    std::memcpy(end, _suffix, kUsualSuffixLength);
    return static_cast<size_t>(end - out) + kUsualSuffixLength;
  }
  size_t length = copyCut(out, kMaxStampLength, _prefix, _prefixLength);
  char fraction[3];
  const size_t fractionLength = writeFraction(fraction, microseconds);
  length += copyCut(out + length, kMaxStampLength - length, fraction, fractionLength);
  length += copyCut(out + length, kMaxStampLength - length, _suffix, _suffixLength);
  return length;
}

char* LocalTimeCache::format(char* buffer, int size, const struct timeval& now) {
  if (size <= 0 || static_cast<size_t>(size) > kMaxStampLength + 1) {
    // Longer buffers can hold the whole text of an unusual year; format it
    // from the cached broken-down time.
    if (!isCurrent(now.tv_sec)) refresh(now.tv_sec);
    return formatTimeStamp(buffer, size, static_cast<long>(now.tv_usec), _valid ? &_local : nullptr);
  }
  char text[kMaxStampLength];
  const size_t length = copyCut(buffer, static_cast<size_t>(size) - 1, text, write(text, now));
  buffer[length] = '\0';
  return buffer;
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

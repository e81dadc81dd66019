// LogFileNames.h - helpers of the log rotation, kept apart so that they can
// be tested on their own.
#ifndef ZEL_INTERNAL_LOG_FILE_NAMES_H
#define ZEL_INTERNAL_LOG_FILE_NAMES_H

#include <cstdint>
#include <string>

namespace Zel {
namespace internal {

// Position just past the last "/" of name, or 0 for "" or a name without "/".
//   "" -> 0    "zel.log" -> 0    "/a/b" -> 3    "/tmp/" -> 5
int32_t filenameIndex(const char* name);

// Reads the whole of text as a base-10 number (strtol). True, with the value
// stored, only when the conversion used every character; otherwise false and
// value untouched. Out-of-range numbers are taken as strtol clamps them, and a
// negative number is stored in two's complement.
//   "12" -> 12    "" -> 0 (accepted)    "+7", " 7", "007" -> 7    "-3" -> 2^64-3
//   "12a" -> false    "1 " -> false    "1\0x" (embedded NUL) -> false
bool parseNumber(uint64_t& value, const std::string& text);

// Size reported by stat, or 0 when stat fails.
int64_t getFileSize(const std::string& path);

// The matching test of a directory entry against the base name: the entry
// must be longer than the base name and contain it somewhere (not only as a
// prefix), and the text from one past the base name's length must be a
// number for parseNumber. The character at the base name's length is not
// looked at.
//   base "zel.log": "zel.log.3" -> 3, "zel.log." -> 0, "zel.logX9" -> 9,
//   "zel.log.7.gz" -> no, "zel.log" -> no, "backup-zel.log-3" -> no
bool matchLogFileName(const std::string& entry, const std::string& baseName, uint64_t& number);

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_LOG_FILE_NAMES_H

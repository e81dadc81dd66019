// Fuzzes the rotation's file-name matching on arbitrary directory entries:
// parseNumber must accept exactly the texts strtol reads to their end (and
// leave the value alone otherwise), matchLogFileName must accept exactly the
// entries that contain the base name, are longer than it, and carry a number
// from one past its length; filenameIndex must point just past the last "/".
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "internal/LogFileNames.h"

namespace {

using Zel::internal::filenameIndex;
using Zel::internal::matchLogFileName;
using Zel::internal::parseNumber;

const uint64_t kUntouched = 0x5a5a5a5a5a5a5a5aull;

// True with the number when strtol consumes the whole text, NULs included.
bool refParse(const std::string& text, uint64_t& value) {
  const char* begin = text.c_str();
  char* end = nullptr;
  const long number = std::strtol(begin, &end, 10);
  if (end != begin + text.size()) return false;
  value = static_cast<uint64_t>(number);
  return true;
}

void checkParse(const std::string& text) {
  uint64_t value = kUntouched;
  uint64_t expected = kUntouched;
  const bool parsed = parseNumber(value, text);
  FUZZ_CHECK(parsed == refParse(text, expected), "parseNumber result for [" + text + "]");
  FUZZ_CHECK(value == expected, "parseNumber value (untouched when rejected)");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelFuzz::Reader reader(data, size);
  const uint8_t choice = reader.byte();
  // Mostly the default base name; sometimes one from the input.
  const std::string base = (choice & 3) != 0 ? std::string("zel.log") : reader.until('\0');
  const std::string entry = reader.rest();

  checkParse(entry);
  if (entry.size() > base.size()) checkParse(entry.substr(base.size() + 1));

  uint64_t number = kUntouched;
  const bool matched = matchLogFileName(entry, base, number);
  bool expected = false;
  uint64_t expectedNumber = kUntouched;
  if (entry.size() > base.size() && entry.find(base) != std::string::npos)
    expected = refParse(entry.substr(base.size() + 1), expectedNumber);
  FUZZ_CHECK(matched == expected, "matchLogFileName of [" + entry + "] on [" + base + "]");
  FUZZ_CHECK(number == expectedNumber, "matchLogFileName number");

  const std::string name = entry.c_str();
  const char* slash = std::strrchr(name.c_str(), '/');
  const int32_t index = filenameIndex(name.c_str());
  FUZZ_CHECK(index == (slash == nullptr ? 0 : static_cast<int32_t>(slash - name.c_str() + 1)), "filenameIndex");
  return 0;
}

// LogLines.h - reading back what the logging wrapper wrote.
#ifndef ZEL_TEST_LOG_LINES_H
#define ZEL_TEST_LOG_LINES_H

#include <sstream>
#include <string>
#include <vector>

namespace ZelTest {

// A local-file time stamp: 29 characters when the fraction has three digits,
// fewer when the microsecond count is below 100.
constexpr const char* kStampPattern = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{1,3}[+-]\d\d:\d\d)";

// The lines of a text, without their newlines.
inline std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) result.push_back(line);
  return result;
}

}  // namespace ZelTest

#endif  // ZEL_TEST_LOG_LINES_H

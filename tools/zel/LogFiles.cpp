// LogFiles.cpp - finding, ordering and parsing the framework's log files.
#include "LogFiles.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <zel/LoggingWrapper.h>

namespace ZelTool {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The wrapper keeps the directory as realpath gives it, or as written when
// realpath fails; trailing slashes only ever come from the latter.
std::string canonicalDirectory(const std::string& directory) {
  char* resolved = ::realpath(directory.c_str(), nullptr);
  if (resolved == nullptr) {
    // The wrapper then names its files "<dir>//<name>": the same files.
    std::string kept = directory;
    while (kept.size() > 1 && kept.back() == '/') kept.pop_back();
    return kept;
  }
  std::string result = resolved;
  std::free(resolved);
  return result;
}

// Reads exactly `count` digits at `pos`.
bool digits(const std::string& text, size_t pos, size_t count, int& value) {
  if (pos + count > text.size()) return false;
  value = 0;
  for (size_t i = pos; i < pos + count; ++i) {
    if (!isDigit(text[i])) return false;
    value = value * 10 + (text[i] - '0');
  }
  return true;
}

// Reads "[+-]HH:MM" at pos; offset in seconds east of UTC.
bool readOffset(const std::string& text, size_t pos, long& offset) {
  int hours = 0;
  int minutes = 0;
  if (pos + 6 != text.size() || (text[pos] != '+' && text[pos] != '-') || !digits(text, pos + 1, 2, hours) ||
      text[pos + 3] != ':' || !digits(text, pos + 4, 2, minutes))
    return false;
  offset = (hours * 60L + minutes) * 60L * (text[pos] == '-' ? -1 : 1);
  return true;
}

const char* const TAGS[] = {"EM", "AL", "CR", "ER", "WA", "NO", "IN", "TR"};

const char* const LEVEL_NAMES[][4] = {
    {"emerg", "EM", "emergency", "panic"}, {"alert", "AL", "alert", "alert"},
    {"crit", "CR", "critical", "crit"},    {"err", "ER", "error", "err"},
    {"warning", "WA", "warn", "warning"},  {"notice", "NO", "notice", "notice"},
    {"info", "IN", "informational", "info"}, {"debug", "TR", "trace", "debug"}};

}  // namespace

LogLocation defaultLogLocation() {
  // The wrapper's constructor: TMPDIR or /tmp, and the default name; then a
  // ZEL_LOGGING_FNAME with a "/" replaces all three.
  LogLocation location;
  const char* tmpdir = std::getenv("TMPDIR");
  location.directory = tmpdir != nullptr ? tmpdir : "/tmp";
  location.baseName = Zel::_LOGGER_FNAME;
  location.live = location.directory + "/" + location.baseName;
  const char* fname = std::getenv(Zel::_ZEL_LOGGING_FNAME);
  if (fname != nullptr) {
    const std::string value = fname;
    const size_t slash = value.rfind('/');
    if (slash != std::string::npos) {
      location.directory = canonicalDirectory(value.substr(0, slash + 1));
      location.baseName = value.substr(slash + 1);
      location.live = value;
    }
  }
  return location;
}

LogLocation logLocationFor(const std::string& path) {
  struct stat st;
  std::string live = path;
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) live = path + "/" + Zel::_LOGGER_FNAME;
  LogLocation location;
  const size_t slash = live.rfind('/');
  location.directory = canonicalDirectory(slash == std::string::npos ? "." : live.substr(0, slash + 1));
  location.baseName = slash == std::string::npos ? live : live.substr(slash + 1);
  location.live = live;
  return location;
}

bool matchNumberedName(const std::string& entry, const std::string& baseName, int32_t& number) {
  // Deliberately as loose as the wrapper's own test: a substring anywhere,
  // and the character at the base name's length not looked at.
  if (entry.size() <= baseName.size() || entry.find(baseName) == std::string::npos) return false;
  const std::string suffix = entry.substr(baseName.size() + 1);
  const char* begin = suffix.c_str();
  char* end = nullptr;
  const long value = std::strtol(begin, &end, 10);
  if (end != begin + suffix.size()) return false;
  number = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
  return true;
}

bool scanLog(const LogLocation& location, std::vector<LogFileEntry>& files, std::string& error) {
  files.clear();
  // The live file is looked at before the directory is read: a rotation in
  // between then shows the same file twice (as live and by its new number,
  // which is kept), never a newer live file before an older numbered one.
  LogFileEntry live;
  live.live = true;
  live.path = location.live;
  struct stat st;
  const bool haveLive = ::stat(live.path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
  if (haveLive) {
    live.identity.device = st.st_dev;
    live.identity.inode = st.st_ino;
    live.size = static_cast<int64_t>(st.st_size);
  }
  DIR* dir = ::opendir(location.directory.c_str());
  if (dir == nullptr) {
    error = "cannot read the log directory '" + location.directory + "': " + std::strerror(errno);
    return false;
  }
  std::vector<LogFileEntry> numbered;
  while (struct dirent* entry = ::readdir(dir)) {
    int32_t number = 0;
    if (!matchNumberedName(entry->d_name, location.baseName, number)) continue;
    LogFileEntry file;
    file.number = number;
    file.path = location.directory + "/" + entry->d_name;
    numbered.push_back(file);
  }
  ::closedir(dir);
  std::sort(numbered.begin(), numbered.end(), [](const LogFileEntry& a, const LogFileEntry& b) {
    return a.number != b.number ? a.number < b.number : a.path < b.path;
  });
  bool liveSeenNumbered = false;
  for (LogFileEntry& file : numbered) {
    // Gone since the directory was read (pruned or renamed by a rotation),
    // or not a regular file: not part of the log now.
    if (::stat(file.path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    file.identity.device = st.st_dev;
    file.identity.inode = st.st_ino;
    file.size = static_cast<int64_t>(st.st_size);
    if (haveLive && file.identity == live.identity) liveSeenNumbered = true;
    files.push_back(file);
  }
  if (haveLive && !liveSeenNumbered) files.push_back(live);
  return true;
}

bool parseLevelName(const std::string& text, int& level) {
  if (text.size() == 1 && isDigit(text[0])) {
    level = text[0] - '0';
    if (level == 8) level = DEBUG_RECORD_LEVEL;
    return level <= 8;
  }
  for (int candidate = 0; candidate <= DEBUG_RECORD_LEVEL; ++candidate)
    for (const char* name : LEVEL_NAMES[candidate])
      if (strcasecmp(text.c_str(), name) == 0) {
        level = candidate;
        return true;
      }
  return false;
}

const char* levelName(int level) {
  return level >= 0 && level <= DEBUG_RECORD_LEVEL ? LEVEL_NAMES[level][0] : "debug";
}

LogRecord parseRecordLine(const std::string& line) {
  LogRecord record;
  if (line.size() < 30) return record;  // the shortest record: a stamp of 23, tag, blanks, function
  // "YYYY-MM-DDTHH:MM:SS." then one to three digits of the fraction, then
  // "+HH:MM", a blank, the two-letter tag and a blank.
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(line, 0, 4, year) || line[4] != '-' || !digits(line, 5, 2, month) || line[7] != '-' ||
      !digits(line, 8, 2, day) || line[10] != 'T' || !digits(line, 11, 2, hour) || line[13] != ':' ||
      !digits(line, 14, 2, minute) || line[16] != ':' || !digits(line, 17, 2, second) || line.size() < 20 ||
      line[19] != '.')
    return record;
  size_t pos = 20;
  while (pos < line.size() && pos < 23 && isDigit(line[pos])) ++pos;
  if (pos == 20) return record;
  const size_t stampEnd = pos + 6;
  long offset = 0;
  if (line.size() < stampEnd + 4 || !readOffset(line.substr(0, stampEnd), pos, offset) || line[stampEnd] != ' ' ||
      line[stampEnd + 3] != ' ')
    return record;
  const std::string tag = line.substr(stampEnd + 1, 2);
  int level = -1;
  for (int i = 0; i <= DEBUG_RECORD_LEVEL; ++i)
    if (tag == TAGS[i]) level = i;
  if (level < 0) return record;

  std::string rest = line.substr(stampEnd + 4);
  if (level == DEBUG_RECORD_LEVEL) {
    // Trace records: "<file, 24 columns>:<line, 5 columns> - " first.
    const size_t dash = rest.find(" - ");
    const size_t colon = dash == std::string::npos ? std::string::npos : rest.rfind(':', dash);
    if (colon == std::string::npos) return record;
    std::string file = rest.substr(0, colon);
    file.erase(file.find_last_not_of(' ') + 1);
    std::string number = rest.substr(colon + 1, dash - colon - 1);
    number.erase(number.find_last_not_of(' ') + 1);
    record.source = file + ":" + number;
    rest = rest.substr(dash + 3);
  }
  // "<function, left-aligned in 25 columns> <message>"
  const size_t blank = rest.find(' ');
  record.function = rest.substr(0, blank);
  if (blank != std::string::npos) {
    const size_t messageStart = std::max<size_t>(record.function.size(), 25) + 1;
    if (rest.size() >= messageStart)
      record.message = rest.substr(messageStart);
    else
      record.message = "";
  }
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  record.seconds = ::timegm(&fields) - offset;
  record.stamp = line.substr(0, stampEnd);
  record.level = level;
  record.tag = tag;
  record.isRecord = true;
  return record;
}

bool parseTimeStamp(const std::string& text, time_t& seconds) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(text, 0, 4, year) || text.size() < 10 || text[4] != '-' || !digits(text, 5, 2, month) ||
      text[7] != '-' || !digits(text, 8, 2, day) || month < 1 || month > 12 || day < 1 || day > 31)
    return false;
  size_t pos = 10;
  if (pos < text.size()) {
    if ((text[pos] != 'T' && text[pos] != ' ') || !digits(text, pos + 1, 2, hour) || text.size() < pos + 6 ||
        text[pos + 3] != ':' || !digits(text, pos + 4, 2, minute) || hour > 23 || minute > 59)
      return false;
    pos += 6;
    if (pos < text.size() && text[pos] == ':') {
      if (!digits(text, pos + 1, 2, second) || second > 60) return false;
      pos += 3;
      if (pos < text.size() && text[pos] == '.') {
        ++pos;
        const size_t start = pos;
        while (pos < text.size() && isDigit(text[pos])) ++pos;
        if (pos == start) return false;
      }
    }
  }
  struct tm fields;
  std::memset(&fields, 0, sizeof(fields));
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  if (pos == text.size()) {
    fields.tm_isdst = -1;
    seconds = std::mktime(&fields);
    return seconds != static_cast<time_t>(-1);
  }
  if (text[pos] == 'Z' && pos + 1 == text.size()) {
    seconds = ::timegm(&fields);
    return true;
  }
  long offset = 0;
  if (!readOffset(text, pos, offset)) return false;
  seconds = ::timegm(&fields) - offset;
  return true;
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  static const char HEX[] = "0123456789abcdef";
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
      ++i;
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\u00";
      out += HEX[c >> 4];
      out += HEX[c & 15];
      ++i;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
    } else {
      // A whole, shortest-form UTF-8 sequence is copied; any other byte is
      // shown as the text \xNN.
      size_t length = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
      bool valid = length != 0 && i + length <= text.size();
      for (size_t k = 1; valid && k < length; ++k)
        valid = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
      if (valid && length == 3) {
        const unsigned char second = static_cast<unsigned char>(text[i + 1]);
        valid = !(c == 0xe0 && second < 0xa0) && !(c == 0xed && second >= 0xa0);
      }
      if (valid && length == 4) {
        const unsigned char second = static_cast<unsigned char>(text[i + 1]);
        valid = !(c == 0xf0 && second < 0x90) && !(c == 0xf4 && second >= 0x90);
      }
      if (valid) {
        out.append(text, i, length);
        i += length;
      } else {
        out += "\\\\x";
        out += HEX[c >> 4];
        out += HEX[c & 15];
        ++i;
      }
    }
  }
  return out + "\"";
}

}  // namespace ZelTool

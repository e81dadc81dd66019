// The checker: reads back everything a torture run left and tests the
// invariants listed in Checker.h.
#include "Checker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <utility>

namespace ZelTorture {

void Violation::add(const std::string& detail) {
  ++count;
  if (details.size() < 8) details.push_back(detail);
}

void Violations::add(const std::string& invariant, const std::string& detail) {
  Violation& v = _byName[invariant];
  v.invariant = invariant;
  v.add(detail);
}

namespace {

const uint64_t kNever = std::numeric_limits<uint64_t>::max();
const char* const kNoticeText = " log records were dropped while the log file could not be written";

// ---- journals --------------------------------------------------------------

struct Batch {
  unsigned thread;
  uint64_t first, last, start, end;
};
struct Flush {
  unsigned thread;
  uint64_t start;
  uint64_t end = kNever;  // kNever: the process died inside flush()
  bool ok = false;
};
struct Journal {
  unsigned id = 0;
  long pid = 0;
  bool child = false;
  unsigned parent = 0;
  bool toggler = false;
  bool ended = false;
  bool killed = false;  // no end line, or hung
  bool failedWrite = false;  // said "Failed to write log file" on standard error
  std::vector<Batch> batches;
  std::vector<Flush> flushes;
};

std::map<unsigned, Journal> readJournals(const Layout& layout, const std::set<long>& hungPids) {
  std::map<unsigned, Journal> journals;
  for (const std::string& name : listDir(layout.journals)) {
    Journal j;
    j.id = static_cast<unsigned>(std::strtoul(name.c_str(), nullptr, 10));
    std::map<std::pair<unsigned, uint64_t>, size_t> open;  // (thread, start) -> flush
    std::istringstream in(readFile(layout.journals + "/" + name));
    std::string line;
    bool seenHeader = false;
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      char kind = 0;
      fields >> kind;
      if (kind == 'P') {
        unsigned id = 0, threads = 0;
        char role = 0;
        int toggler = 0;
        fields >> id >> j.pid >> role >> j.parent >> threads >> toggler;
        j.child = role == 'C';
        j.toggler = toggler != 0;
        seenHeader = true;
      } else if (kind == 'B') {
        Batch b;
        fields >> b.thread >> b.first >> b.last >> b.start >> b.end;
        if (fields) j.batches.push_back(b);
      } else if (kind == 'f') {
        Flush f;
        fields >> f.thread >> f.start;
        if (!fields) continue;
        open[{f.thread, f.start}] = j.flushes.size();
        j.flushes.push_back(f);
      } else if (kind == 'F') {
        unsigned thread = 0;
        uint64_t start = 0, end = 0;
        int ok = 0;
        fields >> thread >> start >> end >> ok;
        auto it = open.find({thread, start});
        if (!fields || it == open.end()) continue;
        j.flushes[it->second].end = end;
        j.flushes[it->second].ok = ok != 0;
      } else if (kind == 'E') {
        j.ended = true;
      }
    }
    if (!seenHeader) continue;
    j.killed = !j.ended || hungPids.count(j.pid) != 0;
    journals[j.id] = std::move(j);
  }
  return journals;
}

// Which records of a journal were confirmed: a record is in the file once a
// flush() that began after it returned true and every flush() that may have
// come between the two (by any thread of the process) returned true too.
// Calls `confirm(thread, first, last)` for each confirmed batch.
template <typename Confirm>
void confirmedBatches(const Journal& j, Confirm confirm) {
  std::vector<Flush> flushes = j.flushes;
  std::sort(flushes.begin(), flushes.end(), [](const Flush& a, const Flush& b) { return a.start < b.start; });
  const size_t n = flushes.size();
  std::vector<size_t> badBefore(n + 1, 0);  // flushes[0..i) that failed or never returned
  std::vector<uint64_t> maxEnd(n, 0);
  for (size_t i = 0; i < n; ++i) {
    badBefore[i + 1] = badBefore[i] + (flushes[i].end == kNever || !flushes[i].ok ? 1 : 0);
    maxEnd[i] = std::max(i > 0 ? maxEnd[i - 1] : 0, flushes[i].end);
  }
  auto firstStartingAtOrAfter = [&](uint64_t tick) {
    return static_cast<size_t>(
        std::lower_bound(flushes.begin(), flushes.end(), tick, [](const Flush& f, uint64_t t) { return f.start < t; }) -
        flushes.begin());
  };
  for (const Batch& b : j.batches) {
    // The thread's own next flush().
    size_t own = firstStartingAtOrAfter(b.end);
    while (own < n && flushes[own].thread != b.thread) ++own;
    if (own == n || flushes[own].end == kNever || !flushes[own].ok) continue;
    const uint64_t ownEnd = flushes[own].end;
    // Every flush() that began from the batch's start up to the end of its
    // own one (those began during or after the batch)...
    const size_t from = firstStartingAtOrAfter(b.start);
    const size_t to = firstStartingAtOrAfter(ownEnd);
    bool ok = badBefore[to] - badBefore[from] == 0;
    // ... and those that began before the batch and ended after its start.
    for (size_t i = from; ok && i > 0 && maxEnd[i - 1] > b.start; --i) {
      const Flush& f = flushes[i - 1];
      if (f.end > b.start && (f.end == kNever || !f.ok)) ok = false;
    }
    if (ok) confirm(b.thread, b.first, b.last);
  }
}

// ---- lines -----------------------------------------------------------------

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Length of a local-file time stamp at `at` ("YYYY-MM-DDThh:mm:ss.f+hh:mm",
// the fraction one to three digits), or 0.
size_t stampAt(const std::string& line, size_t at) {
  static const char kHead[] = "dddd-dd-ddTdd:dd:dd.";
  const size_t headLength = sizeof(kHead) - 1;
  if (line.size() < at + headLength + 7) return 0;
  for (size_t i = 0; i < headLength; ++i) {
    const char c = line[at + i];
    if (kHead[i] == 'd' ? !isDigit(c) : c != kHead[i]) return 0;
  }
  size_t p = at + headLength;
  size_t digits = 0;
  while (p < line.size() && isDigit(line[p]) && digits < 3) ++p, ++digits;
  if (digits == 0 || line.size() < p + 6) return 0;
  if ((line[p] != '+' && line[p] != '-') || !isDigit(line[p + 1]) || !isDigit(line[p + 2]) || line[p + 3] != ':' ||
      !isDigit(line[p + 4]) || !isDigit(line[p + 5]))
    return 0;
  return p + 6 - at;
}

// Whether `line` could be the beginning of a time stamp (a line cut early).
bool startsLikeStamp(const std::string& line) {
  static const char kHead[] = "dddd-dd-ddTdd:dd:dd.";
  const size_t n = std::min(line.size(), sizeof(kHead) - 1);
  for (size_t i = 0; i < n; ++i) {
    const char c = line[i];
    if (kHead[i] == 'd' ? !isDigit(c) : c != kHead[i]) return false;
  }
  return n > 0;
}

size_t countOf(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

struct RecordId {
  unsigned id = 0;
  unsigned thread = 0;
  uint64_t seq = 0;
  long pid = 0;
};

enum class LineKind { Record, Notice, Empty, Cut, Glued, Foreign };

struct Parsed {
  LineKind kind = LineKind::Foreign;
  RecordId record;
  unsigned long long dropped = 0;
};

const std::string& recordPrefix() {
  static const std::string prefix = lineAfterStamp("");
  return prefix;
}
const std::string& noticePrefix() {
  static const std::string prefix = [] {
    char head[64];
    std::snprintf(head, sizeof(head), " ER %-25s ", "LoggingWrapper");
    return std::string(head);
  }();
  return prefix;
}

// The numbers of the record text at `at` ("ZT id thread seq pid ..."); false
// when they cannot be read.
bool readRecordNumbers(const std::string& line, size_t at, RecordId& r) {
  if (line.compare(at, 3, "ZT ") != 0) return false;
  const char* p = line.c_str() + at + 3;
  char* end = nullptr;
  r.id = static_cast<unsigned>(std::strtoul(p, &end, 10));
  if (end == p || *end != ' ') return false;
  p = end + 1;
  r.thread = static_cast<unsigned>(std::strtoul(p, &end, 10));
  if (end == p || *end != ' ') return false;
  p = end + 1;
  r.seq = std::strtoull(p, &end, 10);
  if (end == p || *end != ' ') return false;
  p = end + 1;
  r.pid = std::strtol(p, &end, 10);
  return end != p && *end == ' ';
}

Parsed classify(const std::string& line) {
  Parsed parsed;
  if (line.empty()) {
    parsed.kind = LineKind::Empty;
    return parsed;
  }
  const size_t stamp = stampAt(line, 0);
  if (stamp > 0) {
    if (line.compare(stamp, recordPrefix().size(), recordPrefix()) == 0) {
      const size_t at = stamp + recordPrefix().size();
      if (readRecordNumbers(line, at, parsed.record)) {
        const RecordId& r = parsed.record;
        const std::string message = recordMessage(r.id, r.thread, r.seq, r.pid);
        if (line.size() == at + message.size() && line.compare(at, message.size(), message) == 0) {
          parsed.kind = LineKind::Record;
          return parsed;
        }
        if (line.size() > at + message.size() && line.compare(at, message.size(), message) == 0) {
          parsed.kind = LineKind::Glued;  // a whole record with more behind it
          return parsed;
        }
      }
    } else if (line.compare(stamp, noticePrefix().size(), noticePrefix()) == 0) {
      const size_t at = stamp + noticePrefix().size();
      char* end = nullptr;
      const unsigned long long n = std::strtoull(line.c_str() + at, &end, 10);
      if (end != line.c_str() + at && std::strcmp(end, kNoticeText) == 0) {
        parsed.kind = LineKind::Notice;
        parsed.dropped = n;
        return parsed;
      }
    }
  }
  // Not a whole line of ours: a record cut by a full disk is allowed on a
  // line of its own; the start of another record behind it is not.
  for (size_t at = 1; at < line.size(); ++at) {
    if (isDigit(line[at]) && stampAt(line, at) > 0) {
      parsed.kind = LineKind::Glued;
      return parsed;
    }
  }
  if (countOf(line, "ZT ") > 1) {
    parsed.kind = LineKind::Glued;
    return parsed;
  }
  parsed.kind = startsLikeStamp(line) ? LineKind::Cut : LineKind::Foreign;
  return parsed;
}

// The processes whose records a glued line holds parts of, and whether
// they were killed (a SIGKILL can cut a write short too).
std::string whoseParts(const std::string& line, const std::map<unsigned, Journal>& journals) {
  std::string who;
  for (size_t at = line.find("ZT "); at != std::string::npos; at = line.find("ZT ", at + 1)) {
    RecordId r;
    if (!readRecordNumbers(line, at, r)) continue;
    auto j = journals.find(r.id);
    who += who.empty() ? "\n    parts of: " : "; ";
    who += "process " + std::to_string(r.id) + " thread " + std::to_string(r.thread) + " seq " + std::to_string(r.seq);
    if (j != journals.end()) who += j->second.killed ? " (killed)" : (j->second.failedWrite ? " (failed writes)" : "");
  }
  return who;
}

std::string recordName(const RecordId& r) {
  char text[96];
  std::snprintf(text, sizeof(text), "record %u/%u/%llu (process %u, pid %ld, thread %u, seq %llu)", r.id, r.thread,
                static_cast<unsigned long long>(r.seq), r.id, r.pid, r.thread, static_cast<unsigned long long>(r.seq));
  return text;
}

std::string shortLine(const std::string& line) {
  return line.size() <= 240 ? line : line.substr(0, 240) + "...";
}

// ---- records per thread ----------------------------------------------------

struct Stream {
  std::vector<uint8_t> inFiles;
  std::vector<uint8_t> inStderr;
  std::vector<uint8_t> confirmed;
  std::vector<int32_t> firstFile;
  long long lastLogged = -1;
  void grow(uint64_t seq) {
    if (seq < inFiles.size()) return;
    const size_t size = static_cast<size_t>(seq) + 1;
    inFiles.resize(size, 0);
    inStderr.resize(size, 0);
    confirmed.resize(size, 0);
    firstFile.resize(size, -1);
  }
};
using StreamKey = std::pair<unsigned, unsigned>;

struct LogFileEntry {
  std::string path;
  std::string name;  // relative to the log file system, for messages
  bool ordered;      // numbered or live file: in the order of the rotation
};

std::vector<LogFileEntry> logFiles(const Layout& layout, size_t& directories) {
  // Generations of the log directory: log.gen1, log.gen2, ..., then log.
  std::vector<std::pair<long, std::string>> dirs;
  for (const std::string& name : listDir(layout.fs)) {
    if (name == "log") {
      dirs.emplace_back(std::numeric_limits<long>::max(), name);
    } else if (name.rfind("log.gen", 0) == 0) {
      dirs.emplace_back(std::strtol(name.c_str() + 7, nullptr, 10), name);
    }
  }
  std::sort(dirs.begin(), dirs.end());
  directories = dirs.size();
  std::vector<LogFileEntry> files;
  for (const auto& dir : dirs) {
    std::vector<std::pair<long, std::string>> numbered;
    std::vector<std::string> extra;
    bool live = false;
    for (const std::string& name : listDir(layout.fs + "/" + dir.second)) {
      const std::string digits = name.size() > 8 && name.rfind("zel.log.", 0) == 0 ? name.substr(8) : "";
      if (!digits.empty() && std::all_of(digits.begin(), digits.end(), isDigit)) {
        numbered.emplace_back(std::strtol(digits.c_str(), nullptr, 10), name);
      } else if (name == "zel.log") {
        live = true;
      } else {
        extra.push_back(name);
      }
    }
    std::sort(numbered.begin(), numbered.end());
    std::sort(extra.begin(), extra.end());
    const std::string base = layout.fs + "/" + dir.second + "/";
    for (const auto& n : numbered) files.push_back({base + n.second, dir.second + "/" + n.second, true});
    if (live) files.push_back({base + "zel.log", dir.second + "/zel.log", true});
    for (const std::string& n : extra) files.push_back({base + n, dir.second + "/" + n, false});
  }
  return files;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < text.size()) {
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(at, nl - at));
    at = nl + 1;
  }
  return lines;
}

std::string seqRange(uint64_t first, uint64_t last) {
  return first == last ? std::to_string(first) : std::to_string(first) + ".." + std::to_string(last);
}

}  // namespace

CheckFigures checkRun(const Layout& layout, const std::set<long>& hungPids, Violations& violations) {
  CheckFigures figures;
  std::map<unsigned, Journal> journals = readJournals(layout, hungPids);
  figures.processes = journals.size();
  std::map<StreamKey, Stream> streams;

  // What each process logged, and which of it was confirmed.
  for (const auto& entry : journals) {
    const Journal& j = entry.second;
    if (j.killed) ++figures.killedProcesses;
    for (const Batch& b : j.batches) {
      Stream& s = streams[{j.id, b.thread}];
      s.grow(b.last);
      s.lastLogged = std::max(s.lastLogged, static_cast<long long>(b.last));
      figures.logged += b.last - b.first + 1;
    }
    confirmedBatches(j, [&](unsigned thread, uint64_t first, uint64_t last) {
      Stream& s = streams[{j.id, thread}];
      for (uint64_t seq = first; seq <= last; ++seq) s.confirmed[seq] = 1;
      figures.confirmed += last - first + 1;
    });
  }

  // Standard error of every logging process: records that could not go to
  // a file, and the library's own messages.
  for (const std::string& name : listDir(layout.stderrs)) {
    const unsigned id = static_cast<unsigned>(std::strtoul(name.c_str(), nullptr, 10));
    for (const std::string& line : splitLines(readFile(layout.stderrs + "/" + name))) {
      const Parsed parsed = classify(line);
      if (parsed.kind == LineKind::Record) {
        Stream& s = streams[{parsed.record.id, parsed.record.thread}];
        s.grow(parsed.record.seq);
        if (s.inStderr[parsed.record.seq] < 255) ++s.inStderr[parsed.record.seq];
        ++figures.onStderr;
        continue;
      }
      std::string kind;
      if (line.find("Failed to write log file") != std::string::npos) {
        kind = "Failed to write log file";
        auto j = journals.find(id);
        if (j != journals.end()) j->second.failedWrite = true;
      } else if (line.find("stays locked by another process") != std::string::npos) {
        kind = "Logging directory ... stays locked by another process";
      } else if (line.empty()) {
        continue;
      } else {
        kind = line.substr(0, std::min<size_t>(line.size(), 90));
        // Numbers vary from line to line; keep one entry per message.
        for (char& c : kind)
          if (isDigit(c)) c = '#';
      }
      if (figures.stderrMessages.size() < 40 || figures.stderrMessages.count(kind) != 0) ++figures.stderrMessages[kind];
    }
  }

  // The log files.
  const std::vector<LogFileEntry> files = logFiles(layout, figures.directories);
  figures.files = files.size();
  std::set<std::pair<StreamKey, size_t>> reportedOrder;   // (thread, file) with an order break reported
  std::set<std::pair<StreamKey, size_t>> reportedAcross;
  std::map<StreamKey, std::pair<uint64_t, size_t>> acrossFiles;  // newest seq of each thread in the older ordered files, and its file
  for (size_t f = 0; f < files.size(); ++f) {
    const std::string text = readFile(files[f].path);
    figures.bytes += text.size();
    figures.largestFile = std::max<unsigned long long>(figures.largestFile, text.size());
    std::map<StreamKey, uint64_t> inThisFile;
    std::map<StreamKey, uint64_t> newestInThisFile;  // of the ordered files' checks
    const std::vector<std::string> lines = splitLines(text);
    for (size_t n = 0; n < lines.size(); ++n) {
      const std::string& line = lines[n];
      const std::string where = files[f].name + " line " + std::to_string(n + 1);
      const Parsed parsed = classify(line);
      switch (parsed.kind) {
        case LineKind::Empty:
          ++figures.emptyLines;
          continue;
        case LineKind::Cut:
          ++figures.cutLines;
          continue;
        case LineKind::Notice:
          figures.notices += parsed.dropped;
          continue;
        case LineKind::Glued:
          violations.add("a line holds parts of two records", where + ": " + shortLine(line) + whoseParts(line, journals));
          continue;
        case LineKind::Foreign:
          violations.add("a line is no record", where + ": " + shortLine(line));
          continue;
        case LineKind::Record:
          break;
      }
      const RecordId& r = parsed.record;
      auto journal = journals.find(r.id);
      if (journal == journals.end() || journal->second.pid != r.pid) {
        violations.add("a record of no known process", where + ": " + recordName(r));
        continue;
      }
      ++figures.found;
      const StreamKey key{r.id, r.thread};
      Stream& s = streams[key];
      s.grow(r.seq);
      if (s.inFiles[r.seq] > 0) {
        violations.add("a record is in the files more than once",
                       recordName(r) + " in " + files[static_cast<size_t>(s.firstFile[r.seq])].name + " and " + where);
      } else {
        s.firstFile[r.seq] = static_cast<int32_t>(f);
      }
      if (s.inFiles[r.seq] < 255) ++s.inFiles[r.seq];
      auto last = inThisFile.find(key);
      // One report per thread and file: a misplaced block of records
      // otherwise yields one line per record.
      if (last != inThisFile.end() && r.seq <= last->second && reportedOrder.insert(std::make_pair(key, f)).second) {
        violations.add("records out of their thread's order",
                       recordName(r) + " after seq " + std::to_string(last->second) + " in " + where);
      }
      inThisFile[key] = r.seq;
      // Across files only for processes whose file name never changed: a
      // process that switches back to a name appends to a file older than
      // the numbered files it rotated meanwhile.
      if (files[f].ordered && !journal->second.toggler && !journal->second.child) {
        auto before = acrossFiles.find(key);
        if (before != acrossFiles.end() && r.seq <= before->second.first &&
            reportedAcross.insert(std::make_pair(key, f)).second) {
          violations.add("records out of their thread's order across rotated files",
                         recordName(r) + " in " + where + " comes after seq " + std::to_string(before->second.first) +
                             " in the older " + files[before->second.second].name);
        }
        uint64_t& newest = newestInThisFile[key];
        newest = std::max(newest, r.seq);
      }
    }
    for (const auto& newest : newestInThisFile) {
      auto across = acrossFiles.find(newest.first);
      if (across == acrossFiles.end() || across->second.first < newest.second)
        acrossFiles[newest.first] = std::make_pair(newest.second, f);
    }
  }

  // Every stream, record by record.
  unsigned long long exactMissing = 0;  // must be matched by the notices
  unsigned long long slack = 0;         // may be (a killed process that failed writes)
  for (auto& entry : streams) {
    const StreamKey& key = entry.first;
    Stream& s = entry.second;
    auto journal = journals.find(key.first);
    if (journal == journals.end()) continue;  // reported above
    const Journal& j = journal->second;
    long long maxPresent = -1;
    for (size_t seq = 0; seq < s.inFiles.size(); ++seq)
      if (s.inFiles[seq] > 0 || s.inStderr[seq] > 0) maxPresent = static_cast<long long>(seq);
    const long long upTo = std::max(maxPresent, s.lastLogged);
    RecordId r;
    r.id = key.first;
    r.thread = key.second;
    r.pid = j.pid;
    // Runs of missing records, reported as ranges.
    long long runStart = -1;
    bool runConfirmed = false;
    auto endRun = [&](long long seq) {
      if (runStart < 0) return;
      const uint64_t first = static_cast<uint64_t>(runStart);
      const uint64_t last = static_cast<uint64_t>(seq - 1);
      const unsigned long long count = last - first + 1;
      r.seq = first;
      const bool hole = seq <= maxPresent;  // something of the thread came after
      std::string what = "process " + std::to_string(r.id) + " (pid " + std::to_string(r.pid) + ", " +
                         (j.child ? "child of " + std::to_string(j.parent) : std::string("writer")) +
                         (j.killed ? ", killed" : "") + ") thread " + std::to_string(r.thread) + " seq " +
                         seqRange(first, last) + " (" + std::to_string(count) + " records" +
                         (hole ? ", before seq " + std::to_string(maxPresent) + " which is there" : "") + ")";
      if (runConfirmed) violations.add("a record confirmed by flush() is missing", what);
      if (!j.killed) {
        exactMissing += count;
        if (hole && !j.failedWrite && !runConfirmed)
          violations.add("records missing before later ones of their thread, in a process that never failed a write", what);
      } else if (hole) {
        if (j.failedWrite) {
          slack += count;
        } else {
          exactMissing += count;
          if (!runConfirmed)
            violations.add("records missing before later ones of their thread, in a process that never failed a write",
                           what);
        }
      } else if (j.failedWrite) {
        slack += count;  // dropped and counted before the kill, or still buffered
      }
      runStart = -1;
    };
    for (long long seq = 0; seq <= upTo; ++seq) {
      const size_t i = static_cast<size_t>(seq);
      const bool inFiles = i < s.inFiles.size() && s.inFiles[i] > 0;
      const bool inStderr = i < s.inStderr.size() && s.inStderr[i] > 0;
      if (inFiles && inStderr) {
        r.seq = static_cast<uint64_t>(seq);
        violations.add("a record is both in a file and on standard error", recordName(r));
      }
      if (i < s.inStderr.size() && s.inStderr[i] > 1) {
        r.seq = static_cast<uint64_t>(seq);
        violations.add("a record is on standard error more than once", recordName(r));
      }
      if (inFiles || inStderr) {
        endRun(seq);
        continue;
      }
      ++figures.missing;
      const bool confirmed = i < s.confirmed.size() && s.confirmed[i] != 0;
      if (runStart >= 0 && confirmed != runConfirmed) endRun(seq);
      if (runStart < 0) {
        runStart = seq;
        runConfirmed = confirmed;
      }
    }
    endRun(upTo + 1);
  }
  if (figures.notices < exactMissing || figures.notices > exactMissing + slack) {
    std::string detail = "the notices count " + std::to_string(figures.notices) + " dropped records; missing are " +
                         std::to_string(exactMissing) + " of processes that ended or never failed a write";
    if (slack > 0) detail += ", plus up to " + std::to_string(slack) + " of killed processes that failed writes";
    violations.add("the dropped-records notices do not add up to the missing records", detail);
  }
  return figures;
}

}  // namespace ZelTorture

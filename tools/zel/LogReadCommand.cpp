// LogReadCommand.cpp - `zel log show`, `zel log follow` and `zel log ship`:
// the log read in true order, followed across rotations, and shipped to a
// syslog server over RELP with acknowledgements and a cursor.
#include <fcntl.h>
#include <poll.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "LogFiles.h"
#include "LogFollower.h"
#include "RelpClient.h"

namespace ZelTool {
namespace {

const char* const SHOW_USAGE =
    "Usage: zel log show [PATH] [FILTERS] [--json]\n"
    "\n"
    "Prints every record of the log in true order: the numbered files by their\n"
    "number (zel.log.9 before zel.log.10), then the live file. PATH is the live\n"
    "file or its directory; by default the log that `zel log` writes with the\n"
    "same environment (TMPDIR, ZEL_LOGGING_FNAME).\n"
    "\n"
    "Filters (all must hold):\n"
    "  --level LEVEL        records at LEVEL and more severe: 0-7 or emerg alert\n"
    "                       crit err warning notice info debug, or the tags EM ...\n"
    "                       IN, TR (debug records are level 7)\n"
    "  --function NAME      records of the function NAME\n"
    "  --since STAMP        records of that second and later\n"
    "  --until STAMP        records up to the end of that second\n"
    "  --grep REGEX         lines matching the extended regular expression\n"
    "STAMP is a time stamp as the log writes it (2026-03-01T12:00:00.512+01:00)\n"
    "or a shorter form (2026-03-01T12:00:00, 2026-03-01 12:00, 2026-03-01),\n"
    "local time without an offset. Records are placed by their whole second:\n"
    "the fraction in the log is the first three digits of the microseconds\n"
    "(42 us is written .42), not milliseconds.\n"
    "\n"
    "  --json               one JSON object per line: time, level, function,\n"
    "                       message, file, offset (and source for debug records)\n"
    "\n"
    "Lines that are not records (raw records, a record cut by a failed write)\n"
    "are printed as they are; only --grep judges them.\n"
    "\n"
    "Exit status: 0 something printed, 1 nothing (no log, nothing matched),\n"
    "2 bad usage or an unreadable log directory.\n";

const char* const FOLLOW_USAGE =
    "Usage: zel log follow [PATH] [--cursor FILE] [FILTERS] [--json]\n"
    "\n"
    "Prints the log like `zel log show`, then every new record as it is\n"
    "written, each exactly once, across any number of rotations by any number\n"
    "of processes, until SIGTERM or SIGINT. Only whole lines are printed.\n"
    "\n"
    "  --cursor FILE        where it stands is saved to FILE after each batch;\n"
    "                       started again with the same FILE it goes on right\n"
    "                       behind the last line printed. When the files it\n"
    "                       needs were pruned meanwhile it says on standard\n"
    "                       error how many files and bytes were skipped.\n"
    "                       With standard output appended to a regular file\n"
    "                       (>>), a kill at any moment prints nothing twice.\n"
    "\n"
    "Filters and --json as for `zel log show`.\n"
    "\n"
    "Exit status: 0 stopped by a signal, 2 bad usage, an unreadable log\n"
    "directory or cursor file, or a cursor that cannot be saved.\n";

const char* const SHIP_USAGE =
    "Usage: zel log ship [PATH] --relp HOST:PORT --cursor FILE [--tag TAG]\n"
    "                    [FILTERS]\n"
    "\n"
    "Follows the log like `zel log follow` and sends each record to a syslog\n"
    "server over RELP as an RFC 5424 message: facility user, the severity of\n"
    "the record's level (debug records 7, lines that are no record 6), the\n"
    "record's time stamp to the second, this host's name, app-name TAG\n"
    "(default zel), and the line of the log as the message.\n"
    "\n"
    "  --relp HOST:PORT     the server (rsyslog with imrelp, or any RELP peer)\n"
    "  --cursor FILE        advanced only past records the server acknowledged\n"
    "  --tag TAG            app-name, 1-48 printable ASCII characters\n"
    "\n"
    "While the server cannot be reached it tries again after 0.5 s, doubling\n"
    "up to 30 s, and keeps the log files it has not sent open, so that none is\n"
    "lost to pruning meanwhile. SIGTERM or SIGINT stops it after the batch in\n"
    "flight. A record is sent twice only when the shipper is killed between\n"
    "the server's acknowledgement and the cursor save that follows it (at most\n"
    "one batch of 1000 records), or when the server goes away after it has\n"
    "taken a record but before its acknowledgement arrived.\n"
    "\n"
    "Exit status: 0 stopped by a signal, 2 bad usage, an unreadable log\n"
    "directory or cursor file, or a cursor that cannot be saved.\n";

// Batches: follow prints and saves its cursor after at most this much.
const size_t FOLLOW_BATCH = 1 << 20;
// Ship sends at most this many records at once and keeps all of them
// outstanding (RELP's usual window is 128; rsyslog takes more).
const size_t SHIP_BATCH = 1000;
const size_t SHIP_WINDOW = 1000;
const int RELP_TIMEOUT_MS = 10000;
// Waiting for news in the log directory, when inotify does not wake us.
const int WAIT_MS = 250;

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

// SIGTERM and SIGINT end the waits (no SA_RESTART) and set the flag.
void installStopHandlers() {
  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_handler = requestStop;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

struct ReadOptions {
  bool help = false;
  std::string path;
  bool havePath = false;
  int maxLevel = -1;
  std::string function;
  bool haveFunction = false;
  bool haveSince = false;
  time_t since = 0;
  bool haveUntil = false;
  time_t until = 0;
  std::string grep;
  bool haveGrep = false;
  bool json = false;
  std::string cursor;
  std::string relp;
  std::string tag = "zel";
};

bool startsWith(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

// Parses the options of show, follow and ship ("--name VALUE" or
// "--name=VALUE"); `allowed` lists the options with a value that this
// subcommand takes besides the filters.
int parseReadOptions(const std::string& command, const Args& args, const std::vector<std::string>& allowed,
                     ReadOptions& options) {
  std::vector<std::string> valued = {"--level", "--function", "--since", "--until", "--grep"};
  valued.insert(valued.end(), allowed.begin(), allowed.end());
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (!optionsEnded && isHelpOption(arg)) {
      options.help = true;
      return ExitOk;
    }
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (optionsEnded || arg.empty() || arg[0] != '-' || arg == "-") {
      if (options.havePath) return usageError(command, "more than one PATH: " + quoted(arg));
      options.path = arg;
      options.havePath = true;
      continue;
    }
    if (arg == "--json" && command != "zel log ship") {
      options.json = true;
      continue;
    }
    std::string name = arg;
    std::string value;
    bool haveValue = false;
    const size_t equals = arg.find('=');
    if (startsWith(arg, "--") && equals != std::string::npos) {
      name = arg.substr(0, equals);
      value = arg.substr(equals + 1);
      haveValue = true;
    }
    if (std::find(valued.begin(), valued.end(), name) == valued.end())
      return usageError(command, "unknown option " + quoted(arg));
    if (!haveValue) {
      if (i + 1 >= args.size()) return usageError(command, "option " + quoted(name) + " needs a value");
      value = args[++i];
    }
    if (name == "--level") {
      if (!parseLevelName(value, options.maxLevel))
        return usageError(command, "invalid level " + quoted(value) +
                                       ": use 0-7 or emerg, alert, crit, err, warning, notice, info, debug");
    } else if (name == "--function") {
      options.function = value;
      options.haveFunction = true;
    } else if (name == "--since" || name == "--until") {
      time_t seconds = 0;
      if (!parseTimeStamp(value, seconds))
        return usageError(command, "invalid time stamp " + quoted(value) +
                                       ": use the log's form, e.g. 2026-03-01T12:00:00+01:00 or 2026-03-01");
      if (name == "--since") {
        options.since = seconds;
        options.haveSince = true;
      } else {
        options.until = seconds;
        options.haveUntil = true;
      }
    } else if (name == "--grep") {
      options.grep = value;
      options.haveGrep = true;
    } else if (name == "--cursor") {
      if (value.empty()) return usageError(command, "the cursor FILE is empty");
      options.cursor = value;
    } else if (name == "--relp") {
      options.relp = value;
    } else if (name == "--tag") {
      options.tag = value;
    }
  }
  return ExitOk;
}

// The filters of show, follow and ship.
class RecordFilter {
 public:
  explicit RecordFilter(const ReadOptions& options) : _options(options) {}
  ~RecordFilter() {
    if (_compiled) ::regfree(&_regex);
  }
  RecordFilter(const RecordFilter&) = delete;
  RecordFilter& operator=(const RecordFilter&) = delete;

  bool compile(const std::string& command) {
    if (!_options.haveGrep) return true;
    const int result = ::regcomp(&_regex, _options.grep.c_str(), REG_EXTENDED | REG_NOSUB);
    if (result != 0) {
      char message[256];
      ::regerror(result, &_regex, message, sizeof(message));
      usageError(command, "invalid --grep expression " + quoted(_options.grep) + ": " + message);
      return false;
    }
    _compiled = true;
    return true;
  }

  // Lines that are no record carry no level, function or time: only --grep
  // can judge them, the other filters let them through.
  bool accepts(const std::string& line, const LogRecord& record) const {
    if (_compiled && ::regexec(&_regex, line.c_str(), 0, nullptr, 0) != 0) return false;
    if (!record.isRecord) return true;
    if (_options.maxLevel >= 0 && record.level > _options.maxLevel) return false;
    if (_options.haveFunction && record.function != _options.function) return false;
    if (_options.haveSince && record.seconds < _options.since) return false;
    if (_options.haveUntil && record.seconds > _options.until) return false;
    return true;
  }

 private:
  const ReadOptions& _options;
  regex_t _regex;
  bool _compiled = false;
};

std::string formatLine(const std::string& line, const LogRecord& record, const std::string& path, uint64_t offset,
                       bool json) {
  if (!json) return line + "\n";
  std::string out = "{\"time\":";
  if (record.isRecord) {
    out += jsonString(record.stamp) + ",\"level\":" + std::to_string(record.level) +
           ",\"function\":" + jsonString(record.function) + ",\"message\":" + jsonString(record.message);
    if (!record.source.empty()) out += ",\"source\":" + jsonString(record.source);
  } else {
    out += "null,\"level\":null,\"function\":null,\"message\":" + jsonString(line);
  }
  out += ",\"file\":" + jsonString(path) + ",\"offset\":" + std::to_string(offset) + "}\n";
  return out;
}

// Writes all of text to standard output; false when it cannot (a closed
// pipe, a full disk).
bool writeOut(const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return false;
  }
  return true;
}

bool directoryReadable(const std::string& command, const LogLocation& location) {
  struct stat st;
  if (::stat(location.directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    inputError(command, "the log directory " + quoted(location.directory) + " does not exist");
    return false;
  }
  if (::access(location.directory.c_str(), R_OK | X_OK) != 0) {
    inputError(command, "the log directory " + quoted(location.directory) + " is not readable");
    return false;
  }
  return true;
}

// Waits for news in the log directory or the timeout; a signal ends it too.
void waitForNews(LogFollower& follower, int timeoutMs) {
  const int fd = follower.changeDescriptor();
  if (fd < 0) {
    struct timespec pause = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    ::nanosleep(&pause, nullptr);
    return;
  }
  struct pollfd waiting = {fd, POLLIN, 0};
  (void)::poll(&waiting, 1, timeoutMs);
  follower.drain();
}

// --- the cursor file -----------------------------------------------------
//
//   zel log cursor 1
//   position <device> <inode> <offset> <head length> <head hash> <number>
//            <live> <size> <newest number> <any numbered>
//   previous ...            (follow into a file: the position before the batch)
//   output <before> <after> (follow into a file: its size before and after)
//
// Written to FILE.tmp and renamed onto FILE, so that a kill leaves the old or
// the new cursor, never half of one.

const char* const CURSOR_MAGIC = "zel log cursor 1";

struct CursorState {
  LogPosition position;
  LogPosition previous;
  bool previousIsStart = false;  // the batch was the first: before it, the start of the log
  bool haveOutput = false;
  long long outputBefore = 0;
  long long outputAfter = 0;
};

// 0 loaded, 1 no cursor yet, 2 unusable (message given).
int loadCursor(const std::string& command, const std::string& path, CursorState& state) {
  std::ifstream file(path);
  if (!file) {
    if (errno == ENOENT) return 1;
    inputError(command, "cannot read the cursor file " + quoted(path) + ": " + std::strerror(errno));
    return 2;
  }
  std::string line;
  if (!std::getline(file, line) || line != CURSOR_MAGIC) {
    inputError(command, quoted(path) + " is not a cursor file of zel log");
    return 2;
  }
  bool havePosition = false;
  while (std::getline(file, line)) {
    if (startsWith(line, "position ")) {
      havePosition = state.position.fromText(line);
      if (!havePosition) break;
    } else if (line == "previous start") {
      state.previousIsStart = true;
    } else if (startsWith(line, "previous ")) {
      const std::string text = "position " + line.substr(9);
      if (!state.previous.fromText(text)) havePosition = false;
    } else if (startsWith(line, "output ")) {
      std::istringstream in(line.substr(7));
      state.haveOutput = static_cast<bool>(in >> state.outputBefore >> state.outputAfter);
    }
  }
  if (!havePosition) {
    inputError(command, "the cursor file " + quoted(path) + " is damaged");
    return 2;
  }
  return 0;
}

bool saveCursor(const std::string& command, const std::string& path, const CursorState& state) {
  std::string text = std::string(CURSOR_MAGIC) + "\n" + state.position.toText();
  if (state.previous.valid) text += "previous " + state.previous.toText().substr(9);
  if (state.previousIsStart) text += "previous start\n";
  if (state.haveOutput) text += "output " + std::to_string(state.outputBefore) + " " + std::to_string(state.outputAfter) + "\n";
  const std::string temporary = path + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  bool ok = fd >= 0;
  size_t done = 0;
  while (ok && done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  const int savedErrno = errno;
  if (fd >= 0 && ::close(fd) != 0) ok = false;
  if (ok && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
  inputError(command, "cannot save the cursor " + quoted(path) + ": " + std::strerror(ok ? errno : savedErrno));
  (void)::unlink(temporary.c_str());
  return false;
}

bool samePosition(const LogPosition& a, const LogPosition& b) {
  return a.valid == b.valid && a.identity == b.identity && a.offset == b.offset;
}

// Standard output appended to a regular file: its size tells how much of a
// batch was written before a kill.
bool outputIsAppendedFile(long long& size) {
  struct stat st;
  const int flags = ::fcntl(STDOUT_FILENO, F_GETFL);
  if (flags < 0 || !(flags & O_APPEND) || ::fstat(STDOUT_FILENO, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  size = static_cast<long long>(st.st_size);
  return true;
}

LogLocation locationOf(const ReadOptions& options) {
  return options.havePath ? logLocationFor(options.path) : defaultLogLocation();
}

// --- show ----------------------------------------------------------------

int runShow(const Args& args) {
  const std::string command = "zel log show";
  ReadOptions options;
  const int status = parseReadOptions(command, args, {}, options);
  if (status != ExitOk) return status;
  if (options.help) {
    std::cout << SHOW_USAGE;
    return ExitOk;
  }
  RecordFilter filter(options);
  if (!filter.compile(command)) return ExitError;
  const LogLocation location = locationOf(options);
  if (!directoryReadable(command, location)) return ExitError;

  LogFollower follower(location);
  std::string notice;
  std::string error;
  if (!follower.start(nullptr, notice, error)) return inputError(command, error);
  size_t printed = 0;
  size_t lines = 0;
  std::string out;
  bool outputOk = true;
  const LogFollower::LineSink sink = [&](const std::string& line, const std::string& path, uint64_t offset) {
    ++lines;
    const LogRecord record = parseRecordLine(line);
    if (!filter.accepts(line, record)) return;
    out += formatLine(line, record, path, offset, options.json);
    ++printed;
  };
  bool caughtUp = false;
  while (!caughtUp && outputOk) {
    follower.read(sink, FOLLOW_BATCH, caughtUp);
    outputOk = writeOut(out);
    out.clear();
  }
  // A snapshot: the live file's last line is shown even without its line
  // break.
  follower.readIncompleteLine(sink);
  if (outputOk) outputOk = writeOut(out);
  if (!outputOk) return inputError(command, std::string("cannot write to standard output: ") + std::strerror(errno));
  if (lines == 0 && !follower.position().valid) {
    inputError(command, "no log file " + quoted(location.live));
    return ExitNegative;
  }
  return printed > 0 ? ExitOk : ExitNegative;
}

// --- follow --------------------------------------------------------------

int runFollow(const Args& args) {
  const std::string command = "zel log follow";
  ReadOptions options;
  const int status = parseReadOptions(command, args, {"--cursor"}, options);
  if (status != ExitOk) return status;
  if (options.help) {
    std::cout << FOLLOW_USAGE;
    return ExitOk;
  }
  RecordFilter filter(options);
  if (!filter.compile(command)) return ExitError;
  const LogLocation location = locationOf(options);
  if (!directoryReadable(command, location)) return ExitError;

  const bool useCursor = !options.cursor.empty();
  CursorState cursor;
  const LogPosition* resume = nullptr;
  long long outputSize = 0;
  const bool appended = outputIsAppendedFile(outputSize);
  if (useCursor) {
    const int loaded = loadCursor(command, options.cursor, cursor);
    if (loaded == 2) return ExitError;
    if (loaded == 0) {
      resume = &cursor.position;
      // The cursor was saved before its batch was written: the size of the
      // output tells whether the batch got there, partly or not at all.
      if (cursor.haveOutput && (cursor.previous.valid || cursor.previousIsStart) && appended) {
        const LogPosition* before = cursor.previousIsStart ? nullptr : &cursor.previous;
        if (outputSize == cursor.outputBefore) {
          resume = before;
        } else if (outputSize > cursor.outputBefore && outputSize < cursor.outputAfter) {
          if (::ftruncate(STDOUT_FILENO, static_cast<off_t>(cursor.outputBefore)) == 0) resume = before;
        }
      }
    }
  }

  installStopHandlers();
  LogFollower follower(location);
  std::string notice;
  std::string error;
  if (!follower.start(resume, notice, error)) return inputError(command, error);
  if (!notice.empty()) inputError(command, notice);

  LogPosition saved = resume != nullptr ? *resume : LogPosition();
  std::string out;
  const LogFollower::LineSink sink = [&](const std::string& line, const std::string& path, uint64_t offset) {
    const LogRecord record = parseRecordLine(line);
    if (filter.accepts(line, record)) out += formatLine(line, record, path, offset, options.json);
  };
  while (!stopRequested) {
    bool caughtUp = false;
    follower.read(sink, FOLLOW_BATCH, caughtUp);
    const std::string lost = follower.takeNotice();
    if (!lost.empty()) inputError(command, lost);
    const LogPosition now = follower.position();
    if (!out.empty()) {
      if (useCursor && appended && outputIsAppendedFile(outputSize)) {
        // Saved first, with the way back: see the start above.
        CursorState state;
        state.position = now;
        state.previous = saved;
        state.previousIsStart = !saved.valid;
        state.haveOutput = true;
        state.outputBefore = outputSize;
        state.outputAfter = outputSize + static_cast<long long>(out.size());
        if (!saveCursor(command, options.cursor, state)) return ExitError;
        if (!writeOut(out)) return ExitOk;  // nobody reads any more
      } else {
        // A pipe or terminal: printed first, so a kill in between prints
        // this batch again rather than never.
        if (!writeOut(out)) return ExitOk;
        CursorState state;
        state.position = now;
        if (useCursor && !saveCursor(command, options.cursor, state)) return ExitError;
      }
      out.clear();
      saved = now;
    } else if (useCursor && now.valid && !samePosition(now, saved)) {
      CursorState state;
      state.position = now;
      if (!saveCursor(command, options.cursor, state)) return ExitError;
      saved = now;
    }
    if (caughtUp && !stopRequested) waitForNews(follower, WAIT_MS);
  }
  return ExitOk;
}

// --- ship ----------------------------------------------------------------

std::string hostName() {
  char name[256] = {0};
  if (::gethostname(name, sizeof(name) - 1) != 0) return "-";
  std::string host;
  for (const char* c = name; *c != '\0'; ++c)
    if (*c > 32 && *c < 127) host += *c;
  return host.empty() ? "-" : host;
}

// The record as an RFC 5424 message:
//   <PRI>1 TIMESTAMP HOSTNAME APP-NAME - - - MSG
// facility user (1); the time stamp to the second, as the fraction in the
// log is no decimal fraction; MSG is the line of the log as it is.
std::string syslogMessage(const std::string& line, const std::string& host, const std::string& tag) {
  const LogRecord record = parseRecordLine(line);
  const int severity = record.isRecord ? record.level : 6;
  std::string stamp = "-";
  if (record.isRecord && record.stamp.compare(0, 4, "1970") >= 0)
    stamp = record.stamp.substr(0, 19) + record.stamp.substr(record.stamp.size() - 6);
  return "<" + std::to_string(8 + severity) + ">1 " + stamp + " " + host + " " + tag + " - - - " + line;
}

bool validTag(const std::string& tag) {
  if (tag.empty() || tag.size() > 48) return false;
  for (char c : tag)
    if (c <= 32 || c >= 127) return false;
  return true;
}

// Sleeps up to `ms`, keeping the log's files open meanwhile; ends early on
// a stop request.
void backoffWait(LogFollower& follower, int ms) {
  for (int waited = 0; waited < ms && !stopRequested; waited += RelpClient::IDLE_MS) {
    struct timespec pause = {0, RelpClient::IDLE_MS * 1000000L};
    ::nanosleep(&pause, nullptr);
    follower.refresh();
  }
}

int runShip(const Args& args) {
  const std::string command = "zel log ship";
  ReadOptions options;
  const int status = parseReadOptions(command, args, {"--cursor", "--relp", "--tag"}, options);
  if (status != ExitOk) return status;
  if (options.help) {
    std::cout << SHIP_USAGE;
    return ExitOk;
  }
  std::string host;
  std::string port;
  if (options.relp.empty()) return usageError(command, "--relp HOST:PORT is required");
  if (!splitHostPort(options.relp, host, port))
    return usageError(command, "invalid server " + quoted(options.relp) + ": use HOST:PORT");
  if (options.cursor.empty()) return usageError(command, "--cursor FILE is required");
  if (!validTag(options.tag))
    return usageError(command, "invalid tag " + quoted(options.tag) + ": 1-48 printable ASCII characters");
  RecordFilter filter(options);
  if (!filter.compile(command)) return ExitError;
  const LogLocation location = locationOf(options);
  if (!directoryReadable(command, location)) return ExitError;

  CursorState cursor;
  const int loaded = loadCursor(command, options.cursor, cursor);
  if (loaded == 2) return ExitError;
  installStopHandlers();
  LogFollower follower(location);
  std::string notice;
  std::string error;
  if (!follower.start(loaded == 0 ? &cursor.position : nullptr, notice, error)) return inputError(command, error);
  if (!notice.empty()) inputError(command, notice);

  const std::string self = hostName();
  // While the network keeps it waiting, the shipper still opens each new
  // file of the log, so that files pruned meanwhile stay readable.
  RelpClient client(host, port, RELP_TIMEOUT_MS, [&follower]() { follower.refresh(); });
  std::vector<std::string> messages;
  std::vector<LogPosition> after;  // the position behind each message
  LogPosition saved = loaded == 0 ? cursor.position : LogPosition();
  LogPosition skipped;             // behind lines the filters dropped
  const LogFollower::LineSink sink = [&](const std::string& line, const std::string&, uint64_t) {
    const LogRecord record = parseRecordLine(line);
    if (filter.accepts(line, record)) {
      messages.push_back(syslogMessage(line, self, options.tag));
      after.push_back(follower.position());
    } else if (messages.empty()) {
      skipped = follower.position();
    }
  };
  auto save = [&](const LogPosition& position) {
    if (!position.valid || samePosition(position, saved)) return true;
    CursorState state;
    state.position = position;
    if (!saveCursor(command, options.cursor, state)) return false;
    saved = position;
    return true;
  };

  int backoffMs = 500;
  bool reportedDown = false;
  while (!stopRequested || (!messages.empty() && client.isOpen())) {
    const std::string lost = follower.takeNotice();
    if (!lost.empty()) inputError(command, lost);
    if (messages.empty()) {
      bool caughtUp = false;
      skipped = LogPosition();
      // Lines of about 100 bytes: a batch of up to SHIP_BATCH records.
      follower.read(sink, SHIP_BATCH * 100, caughtUp);
      if (messages.empty()) {
        if (!save(skipped.valid ? skipped : follower.position())) return ExitError;
        if (caughtUp && !stopRequested) waitForNews(follower, WAIT_MS);
        continue;
      }
    }
    if (!client.isOpen()) {
      if (stopRequested) break;
      if (!client.open(error)) {
        if (!reportedDown) inputError(command, error + "; trying again");
        reportedDown = true;
        backoffWait(follower, backoffMs);
        backoffMs = std::min(backoffMs * 2, 30000);
        continue;
      }
      if (reportedDown) inputError(command, "connected to " + options.relp + " again");
      reportedDown = false;
      backoffMs = 500;
    }
    // Sent in slices of SHIP_BATCH, each acknowledged and saved before the
    // next: the records a kill can send twice are at most one slice.
    const size_t count = std::min(messages.size(), SHIP_BATCH);
    const std::vector<std::string> slice(messages.begin(), messages.begin() + static_cast<long>(count));
    size_t acknowledged = 0;
    const bool sent = client.sendAll(slice, SHIP_WINDOW, acknowledged, error);
    if (acknowledged > 0) {
      if (!save(after[acknowledged - 1])) return ExitError;
      messages.erase(messages.begin(), messages.begin() + static_cast<long>(acknowledged));
      after.erase(after.begin(), after.begin() + static_cast<long>(acknowledged));
    }
    if (!sent) {
      client.abort();
      inputError(command, error + "; sending again after reconnecting");
      reportedDown = true;
      backoffWait(follower, backoffMs);
      backoffMs = std::min(backoffMs * 2, 30000);
    }
  }
  client.close();
  return ExitOk;
}

}  // namespace

bool isLogReadCommand(const std::string& word) { return word == "show" || word == "follow" || word == "ship"; }

int runLogRead(const std::string& subcommand, const Args& args) {
  if (subcommand == "show") return runShow(args);
  if (subcommand == "follow") return runFollow(args);
  return runShip(args);
}

}  // namespace ZelTool

// LogCommand.cpp - `zel log`: write records through the logging wrapper, so
// that shell scripts log to the same file, in the same format and under the
// same settings (TMPDIR, ZEL_LOGGING_*) as the framework's processes.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "Cli.h"
#include "LogFiles.h"
#include <zel/LogEscape.h>
#include <zel/LoggingWrapper.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel log";

const char* const USAGE =
    "Usage: zel log [-p [FACILITY.]LEVEL] [-t TAG] [-s] [-f FILE] [--] [MESSAGE...]\n"
    "       zel log show|follow|ship ...   (see zel log show --help)\n"
    "\n"
    "Writes records through the framework's logging wrapper: the same file,\n"
    "line format, rotation and environment (TMPDIR, ZEL_LOGGING_FNAME,\n"
    "ZEL_LOGGING_LEVEL, ZEL_LOGGING_FMAXSIZE, ZEL_LOGGING_FMAXCOUNT) as every\n"
    "process of the framework. The options are logger(1)'s where the two meet.\n"
    "The MESSAGE words are joined by blanks; without a MESSAGE, the lines of\n"
    "FILE or of standard input are read. Each line becomes one record. To log\n"
    "the word show, follow or ship, put -- before it.\n"
    "\n"
    "  -p, --priority [FACILITY.]LEVEL\n"
    "                         LEVEL 0-7 or emerg alert crit err warning notice\n"
    "                         info debug (or the file's tags EM ... IN, TR);\n"
    "                         7, 8 and debug write debug (trace) records; a\n"
    "                         FACILITY (user, daemon, local0 ...) is accepted\n"
    "                         and not kept: the file has none (default info)\n"
    "  -l, --level LEVEL      the same without a facility\n"
    "  -t, --tag TAG          the function name shown in the record (default\n"
    "                         zel), escaped like the message; --function too\n"
    "  -f, --file FILE        log each line of FILE (- for standard input)\n"
    "  -s, --stderr           also print each record's function and message to\n"
    "                         standard error\n"
    "\n"
    "A record above the configured level (ZEL_LOGGING_LEVEL, default 6; 8 for\n"
    "debug records) is dropped, as in the framework. Control characters are\n"
    "written escaped (\\t, \\r, \\x1b, ...), so no message can start a record of\n"
    "its own or reach a terminal that shows the file. Messages are cut at 799\n"
    "characters; the rest of a longer input line is skipped.\n"
    "\n"
    "Exit status: 0 written (or dropped by the level filter), 2 bad usage, a\n"
    "FILE that cannot be read, a log directory that is missing or not\n"
    "writable, or a log file that cannot be written.\n";

const int DEFAULT_LEVEL = 6;
// Debug records go through the trace path, which writes only this level.
const unsigned DEBUG_LEVEL = 8;
const char* const DEFAULT_FUNCTION = "zel";
// The file name shown in debug records, in place of a source file.
const char* const TRACE_FILE = "zel";
// The longest message a record holds: log_printf cuts at 799 characters, so
// more of an input line is never kept.
const size_t MAX_MESSAGE = 799;

// logger(1)'s levels and the file's tags; 7 (syslog's debug) and 8 (the
// trace path's level) both mean a debug record.
bool parseLevel(const std::string& text, unsigned& level) {
  int parsed = 0;
  if (!parseLevelName(text, parsed)) return false;
  level = parsed == DEBUG_RECORD_LEVEL ? DEBUG_LEVEL : static_cast<unsigned>(parsed);
  return true;
}

// The syslog facilities logger(1) knows, by name or number. The local file
// has no facility: it is checked and then not used.
bool isFacility(const std::string& text) {
  static const char* const NAMES[] = {"kern",   "user",   "mail",   "daemon", "auth",   "syslog", "lpr",
                                      "news",   "uucp",   "cron",   "authpriv", "ftp",  "security", "local0",
                                      "local1", "local2", "local3", "local4", "local5", "local6", "local7"};
  for (const char* name : NAMES)
    if (strcasecmp(text.c_str(), name) == 0) return true;
  long number = 0;
  return parseInteger(text, 0, 23, number);
}

// [FACILITY.]LEVEL
bool parsePriority(const std::string& text, unsigned& level) {
  const size_t dot = text.find('.');
  if (dot == std::string::npos) return parseLevel(text, level);
  return isFacility(text.substr(0, dot)) && parseLevel(text.substr(dot + 1), level);
}

struct LogOptions {
  unsigned level = DEFAULT_LEVEL;
  std::string function = DEFAULT_FUNCTION;
  std::string file;
  bool haveFile = false;
  bool toStderr = false;
  Args words;
  bool help = false;
};

bool startsWith(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

enum OptionMatch { NotThisOption, MissingValue, Matched };

// Recognises an option with a value in the forms "-p 3", "-p3", "--priority
// 3" and "--priority=3"; on a match, i is left on the last argument used.
OptionMatch matchOption(const Args& args, size_t& i, const std::string& shortName, const std::string& longName,
                        std::string& value) {
  const std::string& arg = args[i];
  if ((!shortName.empty() && arg == shortName) || arg == longName) {
    if (i + 1 >= args.size()) return MissingValue;
    value = args[++i];
    return Matched;
  }
  if (startsWith(arg, longName + "=")) {
    value = arg.substr(longName.size() + 1);
    return Matched;
  }
  if (!shortName.empty() && !startsWith(arg, "--") && startsWith(arg, shortName)) {
    value = arg.substr(shortName.size());
    return Matched;
  }
  return NotThisOption;
}

const char* const LEVEL_HINT = ": use 0-7 or emerg, alert, crit, err, warning, notice, info, debug";

// Returns ExitOk, or the status of a usage error already reported.
int parseOptions(const Args& args, LogOptions& options) {
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (isHelpOption(arg)) {
      options.help = true;
      return ExitOk;
    }
    if (arg == "-s" || arg == "--stderr") {
      options.toStderr = true;
      continue;
    }
    std::string value;
    OptionMatch match = matchOption(args, i, "-p", "--priority", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a [FACILITY.]LEVEL");
    if (match == Matched) {
      if (!parsePriority(value, options.level))
        return usageError(COMMAND, "invalid priority " + quoted(value) + LEVEL_HINT +
                                       ", optionally after a facility and a dot (user.err)");
      continue;
    }
    match = matchOption(args, i, "-l", "--level", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a LEVEL");
    if (match == Matched) {
      if (!parseLevel(value, options.level)) return usageError(COMMAND, "invalid level " + quoted(value) + LEVEL_HINT);
      continue;
    }
    match = matchOption(args, i, "-t", "--tag", value);
    if (match == NotThisOption) match = matchOption(args, i, "", "--function", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a TAG");
    if (match == Matched) {
      options.function = value;
      continue;
    }
    match = matchOption(args, i, "-f", "--file", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a FILE");
    if (match == Matched) {
      options.file = value;
      options.haveFile = true;
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') return usageError(COMMAND, "unknown option " + quoted(arg));
    break;  // the message starts here ("-" alone is a word)
  }
  options.words.assign(args.begin() + static_cast<long>(i), args.end());
  if (options.haveFile && !options.words.empty())
    return usageError(COMMAND, "a MESSAGE and -f FILE exclude each other");
  return ExitOk;
}

// The wrapper aborts the process when its directory is missing or not
// writable; the tool checks first so that a script gets a message and status
// 2 instead of a core dump. The directory is the one the wrapper checks:
// $TMPDIR, or /tmp when TMPDIR is unset.
bool checkLogDirectory(const std::string& directory, const std::string& origin) {
  struct stat status;
  if (::stat(directory.c_str(), &status) != 0) {
    inputError(COMMAND, "log directory " + quoted(directory) + " (" + origin + ") does not exist");
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    inputError(COMMAND, "log directory " + quoted(directory) + " (" + origin + ") is not a directory");
    return false;
  }
  if (::access(directory.c_str(), W_OK) != 0) {
    inputError(COMMAND, "log directory " + quoted(directory) + " (" + origin + ") is not writable");
    return false;
  }
  return true;
}

bool logDestinationUsable() {
  const char* tmpdir = std::getenv("TMPDIR");
  if (!checkLogDirectory(tmpdir != nullptr ? tmpdir : "/tmp", tmpdir != nullptr ? "TMPDIR" : "default")) return false;
  // A file named with a directory overrides $TMPDIR/zel.log; a name without
  // "/" is ignored by the wrapper.
  const char* fname = std::getenv(Zel::_ZEL_LOGGING_FNAME);
  if (fname == nullptr) return true;
  const std::string path = fname;
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return true;
  return checkLogDirectory(slash == 0 ? "/" : path.substr(0, slash), Zel::_ZEL_LOGGING_FNAME);
}

// Writes the messages of one run. Before the first record that passes the
// level filter it makes sure that the log file can be opened for appending,
// as the wrapper opens it: a wrapper that cannot open its file writes the
// record to standard error instead and tells nobody, and a script must not
// take that for success.
class RecordWriter {
 public:
  // The function name is the caller's text too, and escaped like the message.
  RecordWriter(Zel::LoggingWrapper* log, const LogOptions& options)
      : _log(log), _options(options), _function(Zel::LogEscape::escape(options.function)) {}

  // Writes one line of a message (without its line break) as one record,
  // control characters escaped; `line` is its number in the message or the
  // input (shown in debug records). False when the log file is unusable.
  bool write(const std::string& text, unsigned line) {
    const bool debug = _options.level == DEBUG_LEVEL;
    // -s: like logger(1), every record given is shown, whatever the level.
    if (_options.toStderr) std::cerr << _function << ": " << Zel::LogEscape::escape(text) << "\n";
    // The level filters of the framework's processes: a record they do not
    // admit is dropped before anything is formatted.
    if (debug ? !_log->isDebugLoggingAllowed(DEBUG_LEVEL)
              : !_log->isSaLoggingAllowed(1u << _options.level, _options.level))
      return true;
    if (!_fileChecked && !checkLogFile()) return false;
    const std::string safe = Zel::LogEscape::escape(text);
    if (debug)
      _log->trace_printf(TRACE_FILE, _function.c_str(), line, DEBUG_LEVEL, 0, "%s", safe.c_str());
    else
      _log->log_printf(_function.c_str(), _options.level, 1, "%s", safe.c_str());
    return true;
  }

 private:
  // Opens the log file as the wrapper does: without blocking (a FIFO planted
  // as the log file must not hang the tool) and only if it is a regular
  // file. Nothing is created here: a missing file is made by the wrapper's
  // first record, so only its directory is checked.
  bool checkLogFile() {
    const std::string& path = _log->get_fname();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0 && errno == ENOENT) {
      const size_t slash = path.rfind('/');
      const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
      if (::access(dir.c_str(), W_OK | X_OK) == 0) return _fileChecked = true;
      return cannotWrite(path, std::strerror(errno));
    }
    // A FIFO without a reader refuses a non-blocking open with ENXIO.
    if (fd < 0) return cannotWrite(path, errno == ENXIO ? "not a regular file" : std::strerror(errno));
    struct stat st;
    const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    ::close(fd);
    if (!regular) return cannotWrite(path, "not a regular file");
    return _fileChecked = true;
  }

  static bool cannotWrite(const std::string& path, const std::string& why) {
    inputError(COMMAND, "cannot write the log file " + quoted(path) + ": " + why);
    return false;
  }

  Zel::LoggingWrapper* _log;
  const LogOptions& _options;
  const std::string _function;  // escaped
  bool _fileChecked = false;
};

std::string joinWords(const Args& words) {
  std::string message;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) message += ' ';
    message += words[i];
  }
  return message;
}

// One record per line of the message; a final line break ends the last line
// and starts no empty record. An empty message is one empty record.
bool writeMessage(RecordWriter& writer, const std::string& message) {
  unsigned line = 1;
  size_t begin = 0;
  do {
    size_t end = message.find('\n', begin);
    if (end == std::string::npos) end = message.size();
    if (!writer.write(message.substr(begin, std::min(end - begin, MAX_MESSAGE)), line++)) return false;
    begin = end + 1;
  } while (begin < message.size());
  return true;
}

// Reads the next line of `input` without its line break, keeping at most
// MAX_MESSAGE bytes of it: the rest of a longer line is read and dropped, so
// memory stays bounded whatever the input. A last line without a line break
// counts too. False at the end of the input.
bool readLine(std::istream& input, std::string& line) {
  line.clear();
  std::streambuf* buffer = input.rdbuf();
  bool any = false;
  for (;;) {
    const int c = buffer->sbumpc();
    if (c == std::char_traits<char>::eof()) {
      input.setstate(std::ios::eofbit);
      return any;
    }
    any = true;
    if (c == '\n') return true;
    if (line.size() < MAX_MESSAGE) line += static_cast<char>(c);
  }
}

}  // namespace

int runLog(const Args& args) {
  // Under a file-size limit (ulimit -f) a write past it would kill the tool
  // with SIGXFSZ; ignored, the write fails instead and the tool says so.
  std::signal(SIGXFSZ, SIG_IGN);
  return runLogFrom(args, std::cin, true);
}

int runLogFrom(const Args& args, std::istream& input, bool closeWhenDone) {
  if (!args.empty() && isLogReadCommand(args[0])) return runLogRead(args[0], Args(args.begin() + 1, args.end()));
  LogOptions options;
  int status = parseOptions(args, options);
  if (status != ExitOk) return status;
  if (options.help) {
    std::cout << USAGE;
    return ExitOk;
  }
  std::ifstream file;
  std::istream* lines = &input;
  if (options.haveFile && options.file != "-") {
    struct stat st;
    // Only a regular file: a FIFO or device would hang or never end.
    if (::stat(options.file.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
      return inputError(COMMAND, "cannot read " + quoted(options.file) + ": not a regular file");
    file.open(options.file, std::ios::binary);
    if (!file) return inputError(COMMAND, "cannot read " + quoted(options.file) + ": " + std::strerror(errno));
    lines = &file;
  }
  if (!logDestinationUsable()) return ExitError;

  Zel::LoggingWrapper* log = Zel::LoggingWrapper::getInstance();
  RecordWriter writer(log, options);
  bool written = true;
  if (!options.words.empty()) {
    written = writeMessage(writer, joinWords(options.words));
  } else {
    // Like logger(1): one record per line. Lines are read even when the level
    // drops them, so that a writer on a pipe never sees it closed early.
    std::string line;
    unsigned number = 0;
    while (written && readLine(*lines, line)) written = writer.write(line, ++number);
  }
  // Records are buffered: flush() writes them and tells whether every one
  // reached the file (a full disk, a file-size limit, or a log file the
  // wrapper refused to open send them elsewhere).
  if (written && !log->flush()) {
    inputError(COMMAND, "records could not be written to the log file " + quoted(log->get_fname()));
    written = false;
  }
  if (closeWhenDone) log->close();
  return written ? ExitOk : ExitError;
}

}  // namespace ZelTool

// LogCommand.cpp - `zel log`: write records through the logging wrapper, so
// that shell scripts log to the same file, in the same format and under the
// same settings (TMPDIR, ZEL_LOGGING_*) as the framework's processes.
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "Cli.h"
#include <zel/LoggingWrapper.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel log";

const char* const USAGE =
    "Usage: zel log [-l LEVEL] [-f FUNCTION] [--] [MESSAGE...]\n"
    "\n"
    "Writes a record through the framework's logging wrapper: the same file,\n"
    "line format, rotation and environment (TMPDIR, ZEL_LOGGING_FNAME,\n"
    "ZEL_LOGGING_LEVEL, ZEL_LOGGING_FMAXSIZE, ZEL_LOGGING_FMAXCOUNT) as every\n"
    "process of the framework. The MESSAGE words are joined by blanks; without\n"
    "a MESSAGE, every line of standard input becomes one record.\n"
    "\n"
    "  -l, --level LEVEL      0-6, or emerg alert crit err warning notice info,\n"
    "                         or the file's tags EM AL CR ER WA NO IN (default 6)\n"
    "  -f, --function NAME    function name shown in the record (default zel)\n"
    "\n"
    "A record above the configured level (ZEL_LOGGING_LEVEL, default 6) is\n"
    "dropped, as in the framework. Messages are cut at 799 characters.\n"
    "\n"
    "Exit status: 0 written (or dropped by the level filter), 2 bad usage or a\n"
    "log directory that is missing or not writable.\n";

const int DEFAULT_LEVEL = 6;
const char* const DEFAULT_FUNCTION = "zel";

// Level names accepted next to the numbers 0-6, by level.
const char* const LEVEL_NAMES[][3] = {
    {"emerg", "EM", "emergency"}, {"alert", "AL", "alert"},  {"crit", "CR", "critical"},
    {"err", "ER", "error"},       {"warning", "WA", "warn"}, {"notice", "NO", "notice"},
    {"info", "IN", "informational"}};

bool parseLevel(const std::string& text, unsigned& level) {
  long number = 0;
  if (parseInteger(text, 0, DEFAULT_LEVEL, number)) {
    level = static_cast<unsigned>(number);
    return true;
  }
  for (unsigned candidate = 0; candidate <= static_cast<unsigned>(DEFAULT_LEVEL); ++candidate)
    for (const char* name : LEVEL_NAMES[candidate])
      if (strcasecmp(text.c_str(), name) == 0) {
        level = candidate;
        return true;
      }
  return false;
}

struct LogOptions {
  unsigned level = DEFAULT_LEVEL;
  std::string function = DEFAULT_FUNCTION;
  Args words;
  bool help = false;
};

bool startsWith(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

enum OptionMatch { NotThisOption, MissingValue, Matched };

// Recognises an option with a value in the forms "-l 3", "-l3", "--level 3"
// and "--level=3"; on a match, i is left on the last argument used.
OptionMatch matchOption(const Args& args, size_t& i, const std::string& shortName, const std::string& longName,
                        std::string& value) {
  const std::string& arg = args[i];
  if (arg == shortName || arg == longName) {
    if (i + 1 >= args.size()) return MissingValue;
    value = args[++i];
    return Matched;
  }
  if (startsWith(arg, longName + "=")) {
    value = arg.substr(longName.size() + 1);
    return Matched;
  }
  if (!startsWith(arg, "--") && startsWith(arg, shortName)) {
    value = arg.substr(shortName.size());
    return Matched;
  }
  return NotThisOption;
}

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
    std::string value;
    OptionMatch match = matchOption(args, i, "-l", "--level", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a LEVEL");
    if (match == Matched) {
      if (!parseLevel(value, options.level))
        return usageError(COMMAND, "invalid level " + quoted(value) +
                                       ": use 0-6 or emerg, alert, crit, err, warning, notice, info");
      continue;
    }
    match = matchOption(args, i, "-f", "--function", value);
    if (match == MissingValue) return usageError(COMMAND, "option " + quoted(arg) + " needs a FUNCTION name");
    if (match == Matched) {
      options.function = value;
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') return usageError(COMMAND, "unknown option " + quoted(arg));
    break;  // the message starts here ("-" alone is a word)
  }
  options.words.assign(args.begin() + static_cast<long>(i), args.end());
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

void writeRecord(Zel::LoggingWrapper* log, const LogOptions& options, const std::string& message) {
  // The level filter of the framework's processes: a record the configured
  // level does not admit is dropped before anything is formatted.
  if (!log->isSaLoggingAllowed(1u << options.level, options.level)) return;
  log->log_printf(options.function.c_str(), options.level, 1, "%s", message.c_str());
}

std::string joinWords(const Args& words) {
  std::string message;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) message += ' ';
    message += words[i];
  }
  return message;
}

}  // namespace

int runLog(const Args& args) {
  LogOptions options;
  int status = parseOptions(args, options);
  if (status != ExitOk) return status;
  if (options.help) {
    std::cout << USAGE;
    return ExitOk;
  }
  if (!logDestinationUsable()) return ExitError;

  Zel::LoggingWrapper* log = Zel::LoggingWrapper::getInstance();
  if (!options.words.empty()) {
    writeRecord(log, options, joinWords(options.words));
  } else {
    // Like logger(1): one record per line; a last line without a newline
    // counts too. Lines are read even when the level drops them, so that a
    // writer on a pipe never sees it closed early.
    std::string line;
    while (std::getline(std::cin, line)) writeRecord(log, options, line);
  }
  // Closing flushes the file: records are not flushed one by one.
  log->close();
  return ExitOk;
}

}  // namespace ZelTool

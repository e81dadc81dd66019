// Cli.h - what every subcommand of the zel tool shares: exit statuses, the
// argument list, usage errors and strict number parsing.
//
// Conventions of the tool: results go to standard output, problems to
// standard error prefixed with the command ("zel dn build: ..."). Exit status
// 0 means done / yes, 1 a negative answer (an invalid DN, nothing found, an
// unknown code), 2 bad usage or unusable input.
#ifndef ZEL_TOOL_CLI_H
#define ZEL_TOOL_CLI_H

#include <istream>
#include <string>
#include <vector>

namespace ZelTool {

enum ExitStatus { ExitOk = 0, ExitNegative = 1, ExitError = 2 };

typedef std::vector<std::string> Args;

// Prints "<command>: <message>" and a hint to run "<command> --help" on
// standard error; returns ExitError so callers can `return usageError(...)`.
int usageError(const std::string& command, const std::string& message);

// Prints "<command>: <message>" on standard error and returns ExitError.
int inputError(const std::string& command, const std::string& message);

// True for "-h" and "--help".
bool isHelpOption(const std::string& arg);

// Strict decimal integer: an optional sign and digits only, nothing else, and
// within [min, max]. "-8" -> -8; "", " 1", "1x", "0x10" -> false.
bool parseInteger(const std::string& text, long min, long max, long& value);

// "'text'" - quotes a user's argument in messages.
std::string quoted(const std::string& text);

// The subcommands. Each takes the arguments after its own name.
int runLog(const Args& args);
// runLog reading `input` in place of standard input; closes the logging
// wrapper at the end (flushing the file) only when closeWhenDone is set, as
// runLog does. A closed wrapper writes nothing more in this process.
int runLogFrom(const Args& args, std::istream& input, bool closeWhenDone);
// `zel log show|follow|ship`: true for those words; runLogRead runs one of
// them with the arguments after it.
bool isLogReadCommand(const std::string& word);
int runLogRead(const std::string& subcommand, const Args& args);
int runDn(const Args& args);
int runXPath(const Args& args);
int runConfig(const Args& args);
int runStrerror(const Args& args);

}  // namespace ZelTool

#endif  // ZEL_TOOL_CLI_H

// StrerrorCommand.cpp - `zel strerror`: the name of a ZelReturnT code, for
// reading the numbers that the framework's logs and interfaces report.
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

#include "Cli.h"
#include <zel/ZelReturn.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel strerror";

const char* const USAGE =
    "Usage: zel strerror CODE\n"
    "\n"
    "Prints the name of the return code CODE, a decimal integer:\n"
    "  0 ZelOk, 1 ZelTryAgain, 2 ZelNotActive, -1 ZelFailure, -2 ZelNotExist,\n"
    "  -3 ZelAlreadyExist, -4 ZelAborted, -5 ZelObjectLocked,\n"
    "  -6 ZelPrepareFailed, -7 ZelCommitFailed, -8 ZelInvalidArgument,\n"
    "  -9 ZelValidationFailed, -10 ZelNoResources, -11 ZelTimeOut;\n"
    "any other value prints \"Unknown return code\".\n"
    "\n"
    "Exit status: 0 known code, 1 unknown code, 2 bad usage or a CODE that is\n"
    "not a 32-bit decimal integer.\n";

const char* const UNKNOWN = "Unknown return code";

}  // namespace

int runStrerror(const Args& args) {
  if (!args.empty() && isHelpOption(args[0])) {
    std::cout << USAGE;
    return ExitOk;
  }
  size_t first = (!args.empty() && args[0] == "--") ? 1 : 0;  // "zel strerror -- -8" works too
  if (args.size() - first != 1)
    return usageError(COMMAND, "expected one CODE, got " + std::to_string(args.size() - first) + " arguments");
  long code = 0;
  if (!parseInteger(args[first], INT32_MIN, INT32_MAX, code))
    return usageError(COMMAND, "invalid CODE " + quoted(args[first]) + ": not a 32-bit decimal integer");
  const char* name = Zel::ZelReturn::strerror(static_cast<ZelReturnT>(code));
  std::cout << name << "\n";
  return std::strcmp(name, UNKNOWN) == 0 ? ExitNegative : ExitOk;
}

}  // namespace ZelTool

// Cli.cpp - shared helpers of the zel tool's subcommands.
#include "Cli.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>

namespace ZelTool {

int usageError(const std::string& command, const std::string& message) {
  std::cerr << command << ": " << message << "\n"
            << "Try '" << command << " --help' for more information.\n";
  return ExitError;
}

int inputError(const std::string& command, const std::string& message) {
  std::cerr << command << ": " << message << "\n";
  return ExitError;
}

bool isHelpOption(const std::string& arg) { return arg == "-h" || arg == "--help"; }

bool parseInteger(const std::string& text, long min, long max, long& value) {
  size_t digitsFrom = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
  if (text.size() == digitsFrom) return false;
  for (size_t i = digitsFrom; i < text.size(); ++i)
    if (text[i] < '0' || text[i] > '9') return false;
  // Digits only from here, so strtol can fail only by overflow.
  errno = 0;
  long parsed = std::strtol(text.c_str(), nullptr, 10);
  if (errno == ERANGE || parsed < min || parsed > max) return false;
  value = parsed;
  return true;
}

std::string quoted(const std::string& text) { return "'" + text + "'"; }

}  // namespace ZelTool

// XPathCommand.cpp - `zel xpath`: take apart and build XPath-like instance
// paths with Zel::XPathUtil.
#include <iostream>
#include <string>

#include "Cli.h"
#include <zel/XPathUtil.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel xpath";

const char* const USAGE =
    "Usage: zel xpath split PATH\n"
    "       zel xpath build PREFIX PARENT TYPE KEY VALUE\n"
    "\n"
    "split  prints the lines \"type:\" (type name of the last step, namespace\n"
    "       prefix kept), \"key value:\" (value of the last \"=\" in the path)\n"
    "       and \"parent:\" (the path without its last step).\n"
    "build  prints PARENT/PREFIX:TYPE[KEY=VALUE]; an empty PREFIX leaves out\n"
    "       \"PREFIX:\", an empty PARENT the leading \"PARENT/\", an empty KEY or\n"
    "       VALUE the predicate. TYPE must not be empty.\n"
    "\n"
    "Exit status: 0 ok, 2 bad usage.\n"
    "\n"
    "Examples:\n"
    "  zel xpath split '/ns:Node[id=1]/Port[name=eth0]'\n"
    "  zel xpath build ns '/X[id=1]' T id 2   -> /X[id=1]/ns:T[id=2]\n";

// "zel xpath build" and so on: the prefix of an action's messages.
std::string actionCommand(const std::string& action) { return std::string(COMMAND) + " " + action; }

int wrongCount(const std::string& action, const std::string& expected, size_t given) {
  return usageError(actionCommand(action), "expected " + expected + ", got " + std::to_string(given) + " argument" +
                                               (given == 1 ? "" : "s"));
}

int split(const Args& args) {
  if (args.size() != 1) return wrongCount("split", "one PATH", args.size());
  const std::string& path = args[0];
  std::cout << "type: " << Zel::XPathUtil::getTypeName(path) << "\n"
            << "key value: " << Zel::XPathUtil::getKeyValue(path) << "\n"
            << "parent: " << Zel::XPathUtil::getParentInstance(path) << "\n";
  return ExitOk;
}

int build(const Args& args) {
  if (args.size() != 5) return wrongCount("build", "PREFIX PARENT TYPE KEY VALUE", args.size());
  std::string instance;
  if (!Zel::XPathUtil::getInstance(args[0], args[1], args[2], args[3], args[4], instance))
    return usageError(actionCommand("build"), "TYPE must not be empty");
  std::cout << instance << "\n";
  return ExitOk;
}

}  // namespace

int runXPath(const Args& args) {
  if (args.empty()) return usageError(COMMAND, "missing action: split or build");
  const std::string& action = args[0];
  if (isHelpOption(action) || (args.size() > 1 && isHelpOption(args[1]))) {
    std::cout << USAGE;
    return ExitOk;
  }
  const Args rest(args.begin() + 1, args.end());
  if (action == "split") return split(rest);
  if (action == "build") return build(rest);
  return usageError(COMMAND, "unknown action " + quoted(action) + ": use split or build");
}

}  // namespace ZelTool

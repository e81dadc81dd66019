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
    "       and \"parent:\" (the path without its last step). Says so on\n"
    "       standard error and exits 1, after printing them, when PATH is not\n"
    "       an instance path: \"/\" and steps PREFIX:TYPE[KEY=VALUE] separated\n"
    "       by \"/\" (\"PREFIX:\" and \"[KEY=VALUE]\" optional; names without\n"
    "       blanks or any of / [ ] = :, a VALUE without / [ ] =; blanks around\n"
    "       names and values allowed).\n"
    "build  prints PARENT/PREFIX:TYPE[KEY=VALUE]; an empty PREFIX leaves out\n"
    "       \"PREFIX:\", an empty PARENT the leading \"PARENT/\", an empty KEY or\n"
    "       VALUE the predicate. TYPE must not be empty.\n"
    "\n"
    "Exit status: 0 ok, 1 not an instance path (split), 2 bad usage.\n"
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

const char* const BLANKS = " \t\n\v\f\r";

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// A type, prefix or key name: something left after trimming, and no blank or
// separator inside.
bool isName(const std::string& text) {
  const std::string name = trimmed(text);
  return !name.empty() && name.find_first_of("/[]=:") == std::string::npos &&
         name.find_first_of(BLANKS) == std::string::npos;
}

// A key value: something left after trimming, and no separator ("'a b'" and
// "x:y" are values).
bool isValue(const std::string& text) {
  const std::string value = trimmed(text);
  return !value.empty() && value.find_first_of("/[]=") == std::string::npos;
}

// One step: [PREFIX:]TYPE, then optionally [KEY=VALUE] and nothing but
// blanks after it.
bool isStep(const std::string& step) {
  const size_t open = step.find('[');
  const std::string head = step.substr(0, open);
  const size_t colon = head.find(':');
  if (colon == std::string::npos ? !isName(head) : !isName(head.substr(0, colon)) || !isName(head.substr(colon + 1)))
    return false;
  if (open == std::string::npos) return true;
  const std::string predicate = trimmed(step.substr(open));
  if (predicate.size() < 2 || predicate.back() != ']') return false;
  const std::string inner = predicate.substr(1, predicate.size() - 2);
  const size_t equals = inner.find('=');
  return equals != std::string::npos && isName(inner.substr(0, equals)) && isValue(inner.substr(equals + 1));
}

// "/" followed by one or more steps separated by "/": the paths the split
// functions are made for. Anything else gives them empty or partial parts.
bool isInstancePath(const std::string& path) {
  if (path.empty() || path[0] != '/') return false;
  size_t begin = 1;
  for (;;) {
    const size_t slash = path.find('/', begin);
    if (!isStep(path.substr(begin, slash == std::string::npos ? std::string::npos : slash - begin))) return false;
    if (slash == std::string::npos) return true;
    begin = slash + 1;
  }
}

int split(const Args& args) {
  if (args.size() != 1) return wrongCount("split", "one PATH", args.size());
  const std::string& path = args[0];
  std::cout << "type: " << Zel::XPathUtil::getTypeName(path) << "\n"
            << "key value: " << Zel::XPathUtil::getKeyValue(path) << "\n"
            << "parent: " << Zel::XPathUtil::getParentInstance(path) << "\n";
  if (isInstancePath(path)) return ExitOk;
  std::cerr << actionCommand("split") << ": " << quoted(path) << " is not an instance path\n";
  return ExitNegative;
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

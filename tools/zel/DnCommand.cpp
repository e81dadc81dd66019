// DnCommand.cpp - `zel dn`: check, take apart and build distinguished names
// with Zel::DnUtil. Validation uses DnUtil::isValidDn, a linear scan, never a
// regular-expression engine: the published DN expression backtracks
// exponentially on some inputs.
#include <iostream>
#include <string>

#include "Cli.h"
#include <zel/DnUtil.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel dn";

const char* const USAGE =
    "Usage: zel dn validate [-q] DN...\n"
    "       zel dn split DN\n"
    "       zel dn build PARENT CLASS KEY VALUE\n"
    "\n"
    "validate  prints \"valid: DN\" or \"invalid: DN\" for each DN (-q: nothing)\n"
    "          and exits 1 when any DN is not well-formed. Well-formed: empty, or\n"
    "          RDNs \"Class[.key]=value\" separated by \",\", classes starting\n"
    "          with A-Z, blanks allowed around \",\" and \"=\".\n"
    "split     prints the lines \"class:\", \"id:\", \"parent:\" and \"leaf class:\"\n"
    "          (class and leaf class differ in trimming: \"X=1,Eq .k=3\" gives\n"
    "          class \"Eq\" and leaf class \"Eq \"). Says so on standard error\n"
    "          and exits 1, after printing them, when DN is not well-formed.\n"
    "build     prints PARENT,CLASS=VALUE (CLASS.KEY=VALUE when KEY is neither\n"
    "          CLASSid nor id, ignoring case); PARENT may be \"\". Exits 1, after\n"
    "          printing it, when the result is not a well-formed DN.\n"
    "\n"
    "Exit status: 0 ok, 1 a DN is not well-formed, 2 bad usage.\n"
    "\n"
    "Examples:\n"
    "  zel dn validate 'ManagedElement=1,Equipment=1'\n"
    "  zel dn build 'ManagedElement=1' Equipment serial 7\n"
    "    -> ManagedElement=1,Equipment.serial=7\n";

// "zel dn build" and so on: the prefix of an action's messages.
std::string actionCommand(const std::string& action) { return std::string(COMMAND) + " " + action; }

int wrongCount(const std::string& action, const std::string& expected, size_t given) {
  return usageError(actionCommand(action), "expected " + expected + ", got " + std::to_string(given) + " argument" +
                                               (given == 1 ? "" : "s"));
}

int validate(const Args& args) {
  bool quiet = false;
  size_t first = 0;
  for (; first < args.size() && args[first].size() > 1 && args[first][0] == '-'; ++first) {
    if (args[first] == "--") {
      ++first;
      break;
    }
    if (args[first] != "-q" && args[first] != "--quiet") return usageError(actionCommand("validate"), "unknown option " + quoted(args[first]));
    quiet = true;
  }
  if (first == args.size()) return usageError(actionCommand("validate"), "expected at least one DN");
  int status = ExitOk;
  for (size_t i = first; i < args.size(); ++i) {
    const bool valid = Zel::DnUtil::isValidDn(args[i]);
    if (!valid) status = ExitNegative;
    if (!quiet) std::cout << (valid ? "valid: " : "invalid: ") << args[i] << "\n";
  }
  return status;
}

int split(const Args& args) {
  if (args.size() != 1) return wrongCount("split", "one DN", args.size());
  const std::string& dn = args[0];
  std::string rest = dn;
  std::string leafClass;
  Zel::DnUtil::popLeafClass(rest, leafClass);  // leaves leafClass empty for "AB"
  std::cout << "class: " << Zel::DnUtil::getClass(dn) << "\n"
            << "id: " << Zel::DnUtil::getId(dn) << "\n"
            << "parent: " << Zel::DnUtil::getParentDn(dn) << "\n"
            << "leaf class: " << leafClass << "\n";
  if (Zel::DnUtil::isValidDn(dn)) return ExitOk;
  std::cerr << actionCommand("split") << ": " << quoted(dn) << " is not a well-formed DN\n";
  return ExitNegative;
}

int build(const Args& args) {
  if (args.size() != 4) return wrongCount("build", "PARENT CLASS KEY VALUE", args.size());
  std::string dn;
  Zel::DnUtil::getDn(args[0].c_str(), args[1].c_str(), args[2].c_str(), args[3].c_str(), dn);
  std::cout << dn << "\n";
  if (Zel::DnUtil::isValidDn(dn)) return ExitOk;
  std::cerr << actionCommand("build") << ": " << quoted(dn) << " is not a well-formed DN\n";
  return ExitNegative;
}

}  // namespace

int runDn(const Args& args) {
  if (args.empty()) return usageError(COMMAND, "missing action: validate, split or build");
  const std::string& action = args[0];
  if (isHelpOption(action) || (args.size() > 1 && isHelpOption(args[1]))) {
    std::cout << USAGE;
    return ExitOk;
  }
  const Args rest(args.begin() + 1, args.end());
  if (action == "validate") return validate(rest);
  if (action == "split") return split(rest);
  if (action == "build") return build(rest);
  return usageError(COMMAND, "unknown action " + quoted(action) + ": use validate, split or build");
}

}  // namespace ZelTool

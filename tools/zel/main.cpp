// main.cpp - the zel command-line tool: libzel_common for operators and shell
// scripts. Dispatches to one subcommand per area of the library.
#include <Poco/Exception.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <zel/Version.h>

#include "Cli.h"

namespace {

const char* const USAGE =
    "Usage: zel COMMAND [ARGUMENTS...]\n"
    "\n"
    "Commands:\n"
    "  log [-p LEVEL] [-t TAG] [-s] [-f FILE] [MESSAGE...]\n"
    "                     write records to the framework's local log file\n"
    "  log show|follow|ship\n"
    "                     read, follow or ship the log in true order\n"
    "  dn validate DN...  check distinguished names\n"
    "  dn split DN        show class, id, parent and leaf class of a DN\n"
    "  dn build PARENT CLASS KEY VALUE\n"
    "                     build a DN from a parent DN and one RDN\n"
    "  xpath split PATH   show type, key value and parent of an instance path\n"
    "  xpath build PREFIX PARENT TYPE KEY VALUE\n"
    "                     build an instance path\n"
    "  config get FILE-OR-XML TAG\n"
    "                     print the text of every element named TAG\n"
    "  strerror CODE      name a return code\n"
    "\n"
    "Options:\n"
    "  -h, --help         show this help\n"
    "  -V, --version      show the version of the tool and exit\n"
    "\n"
    "Run 'zel COMMAND --help' for the details of a command, and see zel(1).\n"
    "\n"
    "Exit status: 0 done, 1 negative answer (an invalid DN or instance path,\n"
    "nothing found, an unknown code), 2 bad usage or unusable input.\n";

typedef int (*Command)(const ZelTool::Args&);

Command findCommand(const std::string& name) {
  if (name == "log") return ZelTool::runLog;
  if (name == "dn") return ZelTool::runDn;
  if (name == "xpath") return ZelTool::runXPath;
  if (name == "config") return ZelTool::runConfig;
  if (name == "strerror") return ZelTool::runStrerror;
  return nullptr;
}

int dispatch(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << USAGE;
    return ZelTool::ExitError;
  }
  const std::string name = argv[1];
  if (ZelTool::isHelpOption(name) || name == "help") {
    // "zel help dn" is "zel dn --help".
    if (name == "help" && argc > 2 && findCommand(argv[2]) != nullptr) return findCommand(argv[2])({"--help"});
    std::cout << USAGE;
    return ZelTool::ExitOk;
  }
  if (name == "--version" || name == "-V") {
    // The version of the library loaded, which is what the tool runs on; a
    // library other than the one the tool was built with is named as such.
    std::cout << "zel (libzel_common) " << Zel::libraryVersion();
    if (std::string(Zel::libraryVersion()) != ZEL_COMMON_VERSION_STRING)
      std::cout << " (built with " << ZEL_COMMON_VERSION_STRING << ")";
    std::cout << "\n";
    return ZelTool::ExitOk;
  }
  Command command = findCommand(name);
  if (command == nullptr) return ZelTool::usageError("zel", "unknown command " + ZelTool::quoted(name));
  return command(ZelTool::Args(argv + 2, argv + argc));
}

// A result that could not be written (a full disk, a closed descriptor) must
// not look like success to a script.
int checkOutput(int status) {
  std::cout.flush();
  if (!std::cout || std::fflush(stdout) != 0) {
    std::cerr << "zel: cannot write to standard output\n";
    return ZelTool::ExitError;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return checkOutput(dispatch(argc, argv));
  } catch (const Poco::Exception& e) {
    std::cerr << "zel: " << e.displayText() << "\n";
  } catch (const std::exception& e) {
    std::cerr << "zel: " << e.what() << "\n";
  } catch (...) {
    std::cerr << "zel: unexpected error\n";
  }
  return ZelTool::ExitError;
}

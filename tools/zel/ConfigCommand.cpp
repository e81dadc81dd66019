// ConfigCommand.cpp - `zel config get`: read values out of an XML
// configuration file (or text) with Zel::ZelConfiguration, the way the
// framework's components read theirs.
#include <sys/stat.h>

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>

#include <iostream>
#include <string>

#include "Cli.h"
#include <zel/ZelConfiguration.h>
#include <zel/ZelException.h>

namespace ZelTool {
namespace {

const char* const COMMAND = "zel config";
const char* const GET_COMMAND = "zel config get";

const char* const USAGE =
    "Usage: zel config get FILE-OR-XML TAG\n"
    "\n"
    "Loads FILE-OR-XML - the path of an XML file, or, when no such file\n"
    "exists, the XML text itself - and prints the text directly inside every\n"
    "element named TAG, one per line, in document order (text of child\n"
    "elements and comments is left out). A document whose elements nest\n"
    "deeper than 1000 levels is refused.\n"
    "\n"
    "Exit status: 0 found, 1 no element named TAG, 2 bad usage, a file that\n"
    "cannot be read, XML that does not parse or nests too deep.\n"
    "\n"
    "Examples:\n"
    "  zel config get /etc/zel/router.xml port\n"
    "  zel config get '<cfg><port>830</port></cfg>' port   -> 830\n";

bool fileExists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

int get(const Args& args) {
  if (args.size() != 2)
    return usageError(GET_COMMAND, "expected FILE-OR-XML TAG, got " + std::to_string(args.size()) + " argument" +
                                   (args.size() == 1 ? "" : "s"));
  const std::string& source = args[0];
  const std::string& tag = args[1];
  // The reader takes a missing file for XML text and reports a parse error;
  // an argument that cannot be XML is reported as the missing file it is.
  if (source.find('<') == std::string::npos && !fileExists(source))
    return inputError(GET_COMMAND, "no such file " + quoted(source));

  Zel::ZelConfiguration config;
  try {
    config.load(source);
  } catch (const Zel::ZelException& e) {
    return inputError(GET_COMMAND, "cannot load " + quoted(source) + ": " + e.getReason());
  }
  Poco::AutoPtr<Poco::XML::NodeList> elements(config.getElementsByTagName(tag));
  unsigned long found = 0;
  for (unsigned long i = 0; i < elements->length(); ++i) {
    Poco::XML::Element* element = dynamic_cast<Poco::XML::Element*>(elements->item(i));
    if (element == nullptr) continue;
    std::cout << config.get_text(element) << "\n";
    ++found;
  }
  return found > 0 ? ExitOk : ExitNegative;
}

}  // namespace

int runConfig(const Args& args) {
  if (args.empty()) return usageError(COMMAND, "missing action: get");
  const std::string& action = args[0];
  if (isHelpOption(action) || (args.size() > 1 && isHelpOption(args[1]))) {
    std::cout << USAGE;
    return ExitOk;
  }
  if (action == "get") return get(Args(args.begin() + 1, args.end()));
  return usageError(COMMAND, "unknown action " + quoted(action) + ": use get");
}

}  // namespace ZelTool

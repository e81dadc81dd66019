// config.cpp - read values from an XML configuration file.
//
//   ./example_config [FILE]
//
// ZelConfiguration::load takes a file name or, when no such file exists, the
// XML text itself; without FILE this program loads a built-in document. Every
// failure of load() is a Zel::ZelException with a readable reason.
#include <Poco/AutoPtr.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>

#include <cstdio>
#include <string>

#include <zel/ZelConfiguration.h>
#include <zel/ZelException.h>

namespace {

const char* const SAMPLE =
    "<router>"
    "  <port>830</port>"
    "  <peer><name>north</name><port>831</port></peer>"
    "  <peer><name>south</name><port>832</port></peer>"
    "</router>";

}  // namespace

int main(int argc, char** argv) {
  Zel::ZelConfiguration config;
  try {
    config.load(argc > 1 ? argv[1] : SAMPLE);
  } catch (const Zel::ZelException& e) {
    std::fprintf(stderr, "cannot load the configuration: %s\n", e.what());
    return 1;
  }

  // Every element of a name, anywhere in the document. The list is
  // reference-counted: the AutoPtr releases our reference.
  Poco::AutoPtr<Poco::XML::NodeList> peers(config.getElementsByTagName("peer"));
  for (unsigned long i = 0; i < peers->length(); ++i) {
    Poco::XML::Element* peer = static_cast<Poco::XML::Element*>(peers->item(i));
    // The text of the one <name> below this <peer>.
    std::string name = Zel::ZelConfiguration::getElementValue(config, peer, "name");
    std::string port;
    Zel::ZelConfiguration::getElementValue(config, peer, "port", port);
    std::printf("peer %s on port %s\n", name.c_str(), port.c_str());
  }

  // From the root: the one-match overload gives "" because there are three
  // <port> elements; the bool overload takes the last one.
  Poco::AutoPtr<Poco::XML::NodeList> roots(config.getElementsByTagName("router"));
  if (roots->length() > 0) {
    Poco::XML::Element* root = static_cast<Poco::XML::Element*>(roots->item(0));
    std::string last;
    bool found = Zel::ZelConfiguration::getElementValue(config, root, "port", last);
    std::printf("single <port>: '%s'; last <port>: '%s' (%s)\n",
                Zel::ZelConfiguration::getElementValue(config, root, "port").c_str(), last.c_str(),
                found ? "found" : "none");
  }
  return 0;
}

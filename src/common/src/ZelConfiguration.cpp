#include <zel/ZelConfiguration.h>

#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Node.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/SAX/SAXException.h>

#include <zel/ZelException.h>

namespace Zel {

namespace {

// Parses a file when `source` names an existing one, else `source` as text.
// The parser drops text nodes made of white space only, so indentation never
// shows up in get_text().
Poco::AutoPtr<Poco::XML::Document> parseSource(const std::string& source) {
  Poco::XML::DOMParser parser;
  parser.setFeature(Poco::XML::DOMParser::FEATURE_FILTER_WHITESPACE, true);
  Poco::File file(source);
  if (!file.exists()) return parser.parseString(source);
  if (!file.isFile()) throw ZelException(source + " is not a file");
  if (!file.canRead()) throw ZelException(source + " is not readable");
  return parser.parse(source);
}

}  // namespace

ZelConfiguration::ZelConfiguration() {}

ZelConfiguration::~ZelConfiguration() {}

void ZelConfiguration::load(const std::string& source) {
  try {
    // Assigned only once parsing succeeded: a failed load keeps the old
    // document.
    _document = parseSource(source);
  } catch (const Poco::XML::SAXParseException& error) {
    throw ZelException(error.displayText());
  } catch (const Poco::Exception& error) {
    throw ZelException(error.displayText());
  }
}

void ZelConfiguration::unload() { _document = nullptr; }

bool ZelConfiguration::isLoaded() const { return !_document.isNull(); }

Poco::XML::NodeList* ZelConfiguration::getElementsByTagName(std::string tagName) const {
  // AutoPtr's operator-> throws Poco::NullPointerException when empty.
  return _document->getElementsByTagName(tagName);
}

std::string ZelConfiguration::get_text(Poco::XML::Element* element) const {
  std::string text;
  Poco::AutoPtr<Poco::XML::NodeList> children(element->childNodes());
  const unsigned long length = children->length();
  for (unsigned long index = 0; index < length; ++index) {
    Poco::XML::Node* child = children->item(index);
    if (child != nullptr && child->nodeType() == Poco::XML::Node::TEXT_NODE) text += child->nodeValue();
  }
  return text;
}

std::string ZelConfiguration::getElementValue(ZelConfiguration& config, Poco::XML::Element* element,
                                              std::string tagName) {
  Poco::AutoPtr<Poco::XML::NodeList> matches(element->getElementsByTagName(tagName));
  // Exactly one match or nothing: an ambiguous setting reads as unset.
  if (matches->length() != 1) return std::string();
  Poco::XML::Node* node = matches->item(0);
  if (node == nullptr) return std::string();
  return config.get_text(static_cast<Poco::XML::Element*>(node));
}

bool ZelConfiguration::getElementValue(ZelConfiguration& config, Poco::XML::Element* element,
                                       const std::string& tagName, std::string& value) {
  Poco::AutoPtr<Poco::XML::NodeList> matches(element->getElementsByTagName(tagName));
  const unsigned long length = matches->length();
  if (length == 0) return false;
  // The last match wins, so a later setting overrides an earlier one.
  Poco::XML::Node* node = matches->item(length - 1);
  if (node == nullptr) return false;
  value = config.get_text(static_cast<Poco::XML::Element*>(node));
  return true;
}

}  // namespace Zel

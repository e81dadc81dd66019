#include <zel/ZelConfiguration.h>

#include <Poco/DOM/DOMBuilder.h>
#include <Poco/DOM/Node.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/WhitespaceFilter.h>

#include <string>
#include <vector>

#include <zel/ZelException.h>

namespace Zel {

namespace {

using Poco::XML::Node;

// Thrown out of the parser's element callback when the nesting grows past
// the limit; load() turns it into a ZelException. A private type, so that no
// handler inside the parser mistakes it for one of its own.
struct TooDeep {
  int line;
  int column;
};

// POCO's DOM builder with a depth count: it gives up at the opening tag that
// would nest one element deeper than MAX_ELEMENT_DEPTH. The partial tree
// built so far is at most that deep, so releasing it (the element destructor
// recurses once per level) stays far from the end of the stack.
class DepthLimitedBuilder : public Poco::XML::DOMBuilder {
 public:
  explicit DepthLimitedBuilder(Poco::XML::XMLReader& reader) : Poco::XML::DOMBuilder(reader), _depth(0) {}

 protected:
  void setDocumentLocator(const Poco::XML::Locator* locator) override {
    _locator = locator;
    Poco::XML::DOMBuilder::setDocumentLocator(locator);
  }
  void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override {
    if (++_depth > ZelConfiguration::MAX_ELEMENT_DEPTH)
      throw TooDeep{_locator != nullptr ? _locator->getLineNumber() : 0,
                    _locator != nullptr ? _locator->getColumnNumber() : 0};
    Poco::XML::DOMBuilder::startElement(uri, localName, qname, attributes);
  }
  void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                  const Poco::XML::XMLString& qname) override {
    --_depth;
    Poco::XML::DOMBuilder::endElement(uri, localName, qname);
  }

 private:
  const Poco::XML::Locator* _locator = nullptr;
  unsigned _depth;
};

// Parses a file when `source` names an existing one, else `source` as text.
// Set up as Poco::XML::DOMParser sets itself up (namespaces with their
// prefixes reported, no name pool), with its white-space filter on: text
// nodes made of white space only are dropped, so indentation never shows up
// in get_text(). The builder is DOMParser's own with the depth count added.
Poco::AutoPtr<Poco::XML::Document> parseSource(const std::string& source) {
  Poco::XML::SAXParser parser;
  parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, true);
  parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
  Poco::XML::WhitespaceFilter filter(&parser);
  DepthLimitedBuilder builder(filter);
  Poco::File file(source);
  if (!file.exists()) return builder.parseMemoryNP(source.data(), source.size());
  if (!file.isFile()) throw ZelException(source + " is not a file");
  if (!file.canRead()) throw ZelException(source + " is not readable");
  return builder.parse(source);
}

bool nameMatches(const Node* node, const std::string& tagName) {
  // "*" matches every element, as in the DOM's getElementsByTagName.
  return node->nodeType() == Node::ELEMENT_NODE && (tagName == "*" || node->nodeName() == tagName);
}

// Calls visit(element) for every element named tagName below root (root
// itself excluded), in document order, until visit returns false. Iterative:
// the cost is one step per node whatever the nesting.
template <class Visit>
void forEachElementBelow(const Node* root, const std::string& tagName, Visit visit) {
  Node* node = root->firstChild();
  while (node != nullptr) {
    if (nameMatches(node, tagName) && !visit(node)) return;
    Node* next = node->firstChild();
    // No children: the next sibling of the node or of its nearest ancestor
    // below root that has one.
    while (next == nullptr && node != root) {
      next = node->nextSibling();
      if (next == nullptr) node = node->parentNode();
    }
    node = next;
  }
}

// The elements of a name, collected once in document order, so that item(i)
// is an index into an array. POCO's own list searches the tree from the top
// on every item(i) and length(), which makes a walk over it quadratic. The
// list holds a reference to the document and to each element, so its nodes
// stay valid for as long as the list lives, even if they are taken out of
// the tree meanwhile; unlike POCO's list it does not follow later changes of
// the tree.
class ElementList : public Poco::XML::NodeList {
 public:
  ElementList(Poco::XML::Document* document, const std::string& tagName) : _document(document, true) {
    forEachElementBelow(document, tagName, [this](Node* element) {
      element->duplicate();
      _elements.push_back(element);
      return true;
    });
  }

  Node* item(unsigned long index) const override { return index < _elements.size() ? _elements[index] : nullptr; }
  unsigned long length() const override { return _elements.size(); }
  // Hands the list to the document's release pool: it then lives as long as
  // the document (or until its collectGarbage()). The list lets go of the
  // document first, or each would keep the other alive for ever.
  void autoRelease() override {
    Poco::AutoPtr<Poco::XML::Document> document(_document);
    _document = nullptr;
    document->autoReleasePool().add(this);
    // The local reference goes last: if it was the document's last one, the
    // document and its pool, and with it this list, go now.
  }

 protected:
  ~ElementList() override {
    for (Node* element : _elements) element->release();
  }

 private:
  Poco::AutoPtr<Poco::XML::Document> _document;  // null once auto-released
  std::vector<Node*> _elements;                   // each holds one reference
};

}  // namespace

const unsigned ZelConfiguration::MAX_ELEMENT_DEPTH;

ZelConfiguration::ZelConfiguration() {}

ZelConfiguration::~ZelConfiguration() {}

void ZelConfiguration::load(const std::string& source) {
  try {
    // Assigned only once parsing succeeded: a failed load keeps the old
    // document.
    _document = parseSource(source);
  } catch (const TooDeep& where) {
    throw ZelException("elements nested deeper than the limit of " + std::to_string(MAX_ELEMENT_DEPTH) +
                       " levels (line " + std::to_string(where.line) + ", column " + std::to_string(where.column) +
                       ")");
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
  if (_document.isNull()) throw Poco::NullPointerException();
  Poco::AutoPtr<Poco::XML::Document> document(_document);
  return new ElementList(document.get(), tagName);
}

std::string ZelConfiguration::get_text(Poco::XML::Element* element) const {
  // Sibling links rather than the childNodes() list, whose item(i) counts
  // from the first child on every call.
  std::string text;
  for (Node* child = element->firstChild(); child != nullptr; child = child->nextSibling())
    if (child->nodeType() == Node::TEXT_NODE) text += child->nodeValue();
  return text;
}

std::string ZelConfiguration::getElementValue(ZelConfiguration& config, Poco::XML::Element* element,
                                              std::string tagName) {
  // Exactly one match or nothing: an ambiguous setting reads as unset. The
  // walk stops at the second match.
  Node* match = nullptr;
  unsigned matches = 0;
  forEachElementBelow(element, tagName, [&](Node* node) {
    match = node;
    return ++matches < 2;
  });
  if (matches != 1) return std::string();
  return config.get_text(static_cast<Poco::XML::Element*>(match));
}

bool ZelConfiguration::getElementValue(ZelConfiguration& config, Poco::XML::Element* element,
                                       const std::string& tagName, std::string& value) {
  // The last match wins, so a later setting overrides an earlier one.
  Node* last = nullptr;
  forEachElementBelow(element, tagName, [&](Node* node) {
    last = node;
    return true;
  });
  if (last == nullptr) return false;
  value = config.get_text(static_cast<Poco::XML::Element*>(last));
  return true;
}

}  // namespace Zel

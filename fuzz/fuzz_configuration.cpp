// Fuzzes ZelConfiguration::load with arbitrary XML text, then every lookup on
// what loaded: the elements of the root's name and of a name from the input,
// get_text, and both getElementValue overloads over the children's names. A
// failed load must throw Zel::ZelException only, and keep the document loaded
// before it; a loaded document is never nested deeper than the limit, and
// the library's element list holds what POCO's own list holds, in the same
// order. Node lists are released as the interface asks, so the leak checker
// sees any reference the library keeps. Seeds of deep nesting and of
// thousands of equal names (run with -max_len=65536 by ./dev.sh fuzz) let the
// fuzzer grow documents past the nesting limit and long lists.
#include <sys/stat.h>

#include <string>

#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/Node.h>
#include <Poco/DOM/NodeList.h>

#include "FuzzSupport.h"
#include <zel/ZelConfiguration.h>
#include <zel/ZelException.h>

namespace {

using Poco::XML::Element;
using Poco::XML::Node;
using Poco::XML::NodeList;
using Zel::ZelConfiguration;

const unsigned long kMaxElements = 64;

// Text-node children of element, concatenated: what get_text documents.
std::string refText(Element* element) {
  std::string text;
  for (Node* child = element->firstChild(); child != nullptr; child = child->nextSibling())
    if (child->nodeType() == Node::TEXT_NODE) text += child->nodeValue();
  return text;
}

void checkElement(ZelConfiguration& config, Element* element) {
  FUZZ_CHECK(config.get_text(element) == refText(element), "get_text");
  // Each direct child's name, as a descendant name to look up.
  unsigned long looked = 0;
  for (Node* child = element->firstChild(); child != nullptr && looked < 8; child = child->nextSibling()) {
    if (child->nodeType() != Node::ELEMENT_NODE) continue;
    ++looked;
    const std::string name = child->nodeName();
    NodeList* all = element->getElementsByTagName(name);
    const unsigned long count = all->length();
    Node* lastNode = count > 0 ? all->item(count - 1) : nullptr;
    const std::string expectedSingle =
        count == 1 ? refText(static_cast<Element*>(all->item(0))) : std::string();
    const std::string expectedLast = lastNode != nullptr ? refText(static_cast<Element*>(lastNode)) : "untouched";
    all->release();

    FUZZ_CHECK(ZelConfiguration::getElementValue(config, element, name) == expectedSingle,
               "getElementValue (exactly one match)");
    std::string value = "untouched";
    const bool found = ZelConfiguration::getElementValue(config, element, name, value);
    FUZZ_CHECK(found == (lastNode != nullptr), "getElementValue (last match) result");
    FUZZ_CHECK(value == expectedLast, "getElementValue (last match) value");
  }
}

// Deepest nesting of elements below node (iteratively: the document may be
// as deep as the limit).
unsigned long depthBelow(Node* root) {
  unsigned long depth = 0;
  unsigned long deepest = 0;
  Node* node = root->firstChild();
  if (node != nullptr) depth = 1;
  while (node != nullptr) {
    if (node->nodeType() == Node::ELEMENT_NODE && depth > deepest) deepest = depth;
    if (node->firstChild() != nullptr) {
      node = node->firstChild();
      ++depth;
      continue;
    }
    while (node != root && node->nextSibling() == nullptr) {
      node = node->parentNode();
      --depth;
    }
    node = node == root ? nullptr : node->nextSibling();
  }
  return deepest;
}

void lookUp(ZelConfiguration& config, const std::string& name) {
  NodeList* list = config.getElementsByTagName(name);
  const unsigned long count = list->length();
  if (count > 0) {
    // POCO's own list over the same document: same nodes, same order. Its
    // item(i) walks from the top, so only the first elements are compared.
    NodeList* pocos = list->item(0)->ownerDocument()->getElementsByTagName(name);
    FUZZ_CHECK(pocos->length() == count, "as many elements as POCO's list");
    for (unsigned long i = 0; i < count && i < kMaxElements; ++i)
      FUZZ_CHECK(pocos->item(i) == list->item(i), "the element POCO's list has at " + std::to_string(i));
    pocos->release();
  }
  FUZZ_CHECK(list->item(count) == nullptr, "nothing past the end");
  for (unsigned long i = 0; i < count && i < kMaxElements; ++i) {
    Node* node = list->item(i);
    FUZZ_CHECK(node != nullptr && node->nodeType() == Node::ELEMENT_NODE, "an element");
    FUZZ_CHECK(name == "*" || node->nodeName() == name, "of the name asked for");
    checkElement(config, static_cast<Element*>(node));
  }
  list->release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelFuzz::Reader reader(data, size);
  const std::string tagName = reader.until('\0');
  const std::string xml = reader.rest();
  // Texts that name an existing file take the file branch of load(); the
  // fuzzer is after the XML text, and must not make the run read devices.
  struct stat st;
  if (xml.empty() || ::stat(xml.c_str(), &st) == 0) return 0;

  ZelConfiguration config;
  FUZZ_CHECK(!config.isLoaded(), "starts empty");
  bool loaded = false;
  try {
    config.load(xml);
    loaded = true;
  } catch (const Zel::ZelException& e) {
    FUZZ_CHECK(!config.isLoaded(), "a failed load leaves the object empty");
    FUZZ_CHECK(!e.getReason().empty(), "a failed load says why");
  }
  if (loaded) {
    FUZZ_CHECK(config.isLoaded(), "loaded");
    Poco::AutoPtr<NodeList> roots = config.getElementsByTagName("*");
    const std::string rootName = roots->length() > 0 ? roots->item(0)->nodeName() : std::string();
    if (roots->length() > 0)
      FUZZ_CHECK(depthBelow(roots->item(0)->ownerDocument()) <= ZelConfiguration::MAX_ELEMENT_DEPTH,
                 "nested deeper than the limit");
    roots = nullptr;
    if (!rootName.empty()) lookUp(config, rootName);
    lookUp(config, tagName);

    // A second, broken load keeps the document.
    try {
      config.load("<unclosed>");
      FUZZ_CHECK(false, "a broken text loaded");
    } catch (const Zel::ZelException&) {
      FUZZ_CHECK(config.isLoaded(), "the earlier document stays after a failed load");
    }
  }
  config.unload();
  FUZZ_CHECK(!config.isLoaded(), "unload empties");
  return 0;
}

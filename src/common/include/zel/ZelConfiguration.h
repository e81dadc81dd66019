// ZelConfiguration.h - one parsed XML configuration document and a few
// lookups over it.
//
// load() takes either the path of an XML file or, when no file of that name
// exists, the XML text itself, and parses it with POCO's DOM parser with
// white-space-only text nodes filtered out. The object then holds one
// reference to the parsed Poco::XML::Document until unload(), the next
// successful load() or its destruction. Copies of the object share the
// document.
//
// Untrusted input: load() refuses a document whose elements nest deeper than
// MAX_ELEMENT_DEPTH, while parsing and before the deep part is built, so no
// recursion over the tree (POCO releases elements recursively) can run out of
// stack. The lookups walk the tree iteratively and cost time linear in the
// size of the document; the list of getElementsByTagName() answers item(i)
// and length() in constant time.
//
// Errors: load() throws Zel::ZelException; getElementsByTagName() without a
// document throws Poco::NullPointerException. Nothing is logged.
//
// Threads: no locking. Use an object from one thread at a time; a loaded
// document may be read by several threads as long as nobody calls load() or
// unload() meanwhile.
#ifndef ZEL_CONFIGURATION_H
#define ZEL_CONFIGURATION_H

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeList.h>

#include <string>

#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API ZelConfiguration {
 public:
  // Deepest nesting of elements load() accepts: the document element is at
  // level 1. No real configuration comes near it.
  static const unsigned MAX_ELEMENT_DEPTH = 1000;

  // Starts with no document.
  ZelConfiguration();
  // Releases the document reference, if any.
  virtual ~ZelConfiguration();

  // Parses `source` and makes it the held document, replacing any earlier one.
  //   existing regular, readable file -> the file is parsed
  //   existing directory or other non-regular file
  //                                   -> ZelException(source + " is not a file")
  //   existing file that cannot be read
  //                                   -> ZelException(source + " is not readable")
  //   no such file                    -> source itself is parsed as XML text:
  //                                      "<a><b>x</b></a>" loads, while a
  //                                      mistyped path fails as bad XML
  //   elements nested deeper than MAX_ELEMENT_DEPTH
  //                                   -> ZelException("elements nested deeper
  //                                      than the limit of 1000 levels (line L,
  //                                      column C)"), C the position of the
  //                                      opening tag of the first element too deep
  // A parse or file-system error throws ZelException whose reason is POCO's
  // displayText() of the error. On any failure the object keeps the document
  // it had (or stays empty).
  void load(const std::string& source);

  // Releases the document; harmless when nothing is loaded.
  void unload();

  // True while a document is held.
  bool isLoaded() const;

  // All elements named tagName anywhere in the document, in document order;
  // "*" names every element. The list is collected once, in one walk over
  // the document: item(i) and length() take constant time, and item(i) past
  // the end is null. It is a snapshot that keeps its document and its
  // elements alive, and does not follow later changes of the tree. The
  // caller owns one reference to the list and must release() it (or hand it
  // to a Poco::AutoPtr); after autoRelease() the document's release pool
  // owns it instead and it lives as long as the document. Throws
  // Poco::NullPointerException (default message) when nothing is loaded.
  Poco::XML::NodeList* getElementsByTagName(std::string tagName) const;

  // The text directly inside element: its text-node children concatenated in
  // order. Comments, CDATA sections, processing instructions and child
  // elements (with all they contain) are skipped.
  //   <v>a<!--c-->b<x>y</x>c</v> -> "abc"      <v>  </v> -> "" (filtered at load)
  // Does not use the held document. element must not be null.
  std::string get_text(Poco::XML::Element* element) const;

  // The text of the one descendant of element (at any depth) named tagName;
  // "" when there is none or more than one.
  //   <r><v>1</v></r>, "v"                -> "1"
  //   <r><v>1</v><g><v>2</v></g></r>, "v" -> ""   (two matches)
  // One walk over the elements below element, stopping at a second match.
  // element must not be null.
  static std::string getElementValue(ZelConfiguration& config, Poco::XML::Element* element, std::string tagName);

  // Sets value to the text of the last descendant of element (in document
  // order) named tagName and returns true; returns false and leaves value
  // unchanged when there is none. Unlike the overload above it accepts any
  // number of matches:
  //   <r><v>1</v><g><v>2</v></g></r>, "v" -> true, value "2"
  // One walk over the elements below element. element must not be null.
  static bool getElementValue(ZelConfiguration& config, Poco::XML::Element* element, const std::string& tagName,
                              std::string& value);

 private:
  Poco::AutoPtr<Poco::XML::Document> _document;  // null when nothing is loaded
};

}  // namespace Zel

#endif  // ZEL_CONFIGURATION_H

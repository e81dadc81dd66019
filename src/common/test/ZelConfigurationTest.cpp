// Tests of Zel::ZelConfiguration: loading files and texts, keeping the earlier
// document on failure, and the lookups. Files live in the test's temp dir.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Node.h>
#include <Poco/Exception.h>

#include <climits>
#include <string>
#include <vector>

#include <zel/ZelConfiguration.h>
#include <zel/ZelException.h>
#include "support/TempDir.h"

using Zel::ZelConfiguration;

namespace {

typedef Poco::AutoPtr<Poco::XML::NodeList> NodeListPtr;

// The reason of the ZelException load(source) throws; fails the test when it
// throws nothing or something else.
std::string loadFailure(ZelConfiguration& config, const std::string& source) {
  try {
    config.load(source);
  } catch (const Zel::ZelException& e) {
    EXPECT_EQ("ZelException(" + e.getReason() + ")", std::string(e.what()));
    return e.getReason();
  } catch (...) {
    ADD_FAILURE() << "load threw something other than Zel::ZelException";
    return "<other exception>";
  }
  ADD_FAILURE() << "load did not throw";
  return "<nothing thrown>";
}

// What POCO itself reports for a text, parsed the way load() parses.
std::string pocoParseError(const std::string& text) {
  Poco::XML::DOMParser parser;
  parser.setFeature(Poco::XML::DOMParser::FEATURE_FILTER_WHITESPACE, true);
  try {
    Poco::AutoPtr<Poco::XML::Document> document(parser.parseString(text));
  } catch (const Poco::Exception& e) {
    return e.displayText();
  }
  return "<parsed>";
}

// The first element of that name in the loaded document.
Poco::XML::Element* firstElement(const ZelConfiguration& config, const std::string& name) {
  NodeListPtr list(config.getElementsByTagName(name));
  if (list->length() == 0) return nullptr;
  // The document keeps the element alive after the list is released.
  return static_cast<Poco::XML::Element*>(list->item(0));
}

// Names and texts of all elements called `name`.
std::vector<std::string> textsOf(const ZelConfiguration& config, const std::string& name) {
  std::vector<std::string> texts;
  NodeListPtr list(config.getElementsByTagName(name));
  for (unsigned long i = 0; i < list->length(); ++i)
    texts.push_back(config.get_text(static_cast<Poco::XML::Element*>(list->item(i))));
  return texts;
}

// `depth` elements <a> nested in each other around the text x.
std::string nested(size_t depth) {
  std::string text;
  text.reserve(depth * 7 + 1);
  for (size_t i = 0; i < depth; ++i) text += "<a>";
  text += "x";
  for (size_t i = 0; i < depth; ++i) text += "</a>";
  return text;
}

// The reason given for a document one level too deep whose 1001st opening
// tag starts at `column` of line `line`.
std::string tooDeep(int line, int column) {
  return "elements nested deeper than the limit of 1000 levels (line " + std::to_string(line) + ", column " +
         std::to_string(column) + ")";
}

class ZelConfigurationTest : public ZelTest::TempDirTest {};

// --- load --------------------------------------------------------------------

TEST_F(ZelConfigurationTest, StartsEmpty) {
  ZelConfiguration config;
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, LoadTakesTextWhenNoFileHasThatName) {
  ZelConfiguration config;
  config.load("<a><b>x</b></a>");
  EXPECT_TRUE(config.isLoaded());
  EXPECT_EQ((std::vector<std::string>{"x"}), textsOf(config, "b"));
}

TEST_F(ZelConfigurationTest, LoadParsesAnExistingFile) {
  const std::string path = tmp.file("config.xml");
  ZelTest::writeFile(path, "<?xml version=\"1.0\"?>\n<config>\n  <port>830</port>\n</config>\n");
  ZelConfiguration config;
  config.load(path);
  EXPECT_TRUE(config.isLoaded());
  EXPECT_EQ((std::vector<std::string>{"830"}), textsOf(config, "port"));
  // Indentation between elements was dropped while parsing.
  EXPECT_EQ((std::vector<std::string>{""}), textsOf(config, "config"));
}

TEST_F(ZelConfigurationTest, LoadOfDirectoryThrowsIsNotAFile) {
  ZelConfiguration config;
  EXPECT_EQ(tmp.path() + " is not a file", loadFailure(config, tmp.path()));
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, LoadOfUnreadableFileThrowsIsNotReadable) {
  // Judged by the owner's permission bits for the owner, so this holds for
  // root too.
  const std::string path = tmp.file("secret.xml");
  ZelTest::writeFile(path, "<a/>");
  ASSERT_EQ(0, chmod(path.c_str(), 0));
  ZelConfiguration config;
  EXPECT_EQ(path + " is not readable", loadFailure(config, path));
  EXPECT_FALSE(config.isLoaded());
  chmod(path.c_str(), 0600);
}

TEST_F(ZelConfigurationTest, LoadOfMalformedTextThrowsPocoTextAndKeepsEarlierDocument) {
  ZelConfiguration config;
  config.load("<a><b>kept</b></a>");
  const std::string expected = pocoParseError("<a>");
  ASSERT_NE("<parsed>", expected);
  EXPECT_EQ(expected, loadFailure(config, "<a>"));
  EXPECT_TRUE(config.isLoaded());
  EXPECT_EQ((std::vector<std::string>{"kept"}), textsOf(config, "b"));
}

TEST_F(ZelConfigurationTest, FailuresOfEveryKindKeepEarlierDocument) {
  const std::string unreadable = tmp.file("unreadable.xml");
  ZelTest::writeFile(unreadable, "<a/>");
  ASSERT_EQ(0, chmod(unreadable.c_str(), 0));
  const std::string broken = tmp.file("broken.xml");
  ZelTest::writeFile(broken, "<a><b></a>");

  ZelConfiguration config;
  config.load("<a><b>kept</b></a>");
  loadFailure(config, tmp.path());
  loadFailure(config, unreadable);
  loadFailure(config, broken);
  loadFailure(config, "");
  EXPECT_TRUE(config.isLoaded());
  EXPECT_EQ((std::vector<std::string>{"kept"}), textsOf(config, "b"));
  chmod(unreadable.c_str(), 0600);
}

TEST_F(ZelConfigurationTest, MalformedFileThrowsZelException) {
  const std::string path = tmp.file("broken.xml");
  ZelTest::writeFile(path, "<a><b></a>");
  ZelConfiguration config;
  const std::string reason = loadFailure(config, path);
  EXPECT_FALSE(reason.empty());
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, MistypedPathIsReportedAsBadXmlText) {
  const std::string missing = tmp.file("missing.xml");
  ZelConfiguration config;
  EXPECT_EQ(pocoParseError(missing), loadFailure(config, missing));
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, EmptySourceThrowsZelException) {
  ZelConfiguration config;
  EXPECT_FALSE(loadFailure(config, "").empty());
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, TextLongerThanAnyPathStillLoads) {
  std::string text = "<a>";
  for (int i = 0; i < 600; ++i) text += "<b>" + std::to_string(i) + "</b>";
  text += "</a>";
  ASSERT_GT(text.size(), static_cast<size_t>(PATH_MAX));
  ZelConfiguration config;
  config.load(text);
  const std::vector<std::string> texts = textsOf(config, "b");
  ASSERT_EQ(600u, texts.size());
  EXPECT_EQ("599", texts.back());
}

TEST_F(ZelConfigurationTest, SuccessfulLoadReplacesDocumentAndUnloadEmpties) {
  ZelConfiguration config;
  config.load("<a><b>first</b></a>");
  config.load("<a><c>second</c></a>");
  EXPECT_TRUE(textsOf(config, "b").empty());
  EXPECT_EQ((std::vector<std::string>{"second"}), textsOf(config, "c"));
  config.unload();
  EXPECT_FALSE(config.isLoaded());
  config.unload();  // harmless when empty
  EXPECT_FALSE(config.isLoaded());
  config.load("<a/>");
  EXPECT_TRUE(config.isLoaded());
}

// --- nesting limit --------------------------------------------------------------

TEST_F(ZelConfigurationTest, NestingLimitIsAThousandLevels) {
  EXPECT_EQ(1000u, ZelConfiguration::MAX_ELEMENT_DEPTH);
}

TEST_F(ZelConfigurationTest, DocumentNestedExactlyToTheLimitLoads) {
  ZelConfiguration config;
  config.load(nested(1000));
  NodeListPtr all(config.getElementsByTagName("a"));
  ASSERT_EQ(1000u, all->length());
  EXPECT_EQ("x", config.get_text(static_cast<Poco::XML::Element*>(all->item(999))));
}

TEST_F(ZelConfigurationTest, OneLevelBeyondTheLimitThrowsNamingTheLimitAndKeepsEarlierDocument) {
  ZelConfiguration config;
  config.load("<a><b>kept</b></a>");
  // The 1001st "<a>" starts 3000 characters into the line.
  EXPECT_EQ(tooDeep(1, 3000), loadFailure(config, nested(1001)));
  EXPECT_TRUE(config.isLoaded());
  EXPECT_EQ((std::vector<std::string>{"kept"}), textsOf(config, "b"));
}

TEST_F(ZelConfigurationTest, DepthCountsOpenElementsNotElementsSeen) {
  // Many siblings, each nested 999 deep below the root: never deeper than
  // 1000 at any point.
  std::string text = "<r>";
  for (int i = 0; i < 5; ++i) {
    const std::string inner = nested(999);
    text += inner;
  }
  text += "</r>";
  ZelConfiguration config;
  config.load(text);
  NodeListPtr all(config.getElementsByTagName("a"));
  EXPECT_EQ(5u * 999u, all->length());
}

TEST_F(ZelConfigurationTest, HostileDeepTextIsRejectedWithoutCrashing) {
  // 300 000 levels: releasing a tree that deep recursively overflows the
  // stack, so it must never be built.
  ZelConfiguration config;
  config.load("<a><b>kept</b></a>");
  EXPECT_EQ(tooDeep(1, 3000), loadFailure(config, nested(300000)));
  EXPECT_EQ((std::vector<std::string>{"kept"}), textsOf(config, "b"));
}

TEST_F(ZelConfigurationTest, HostileDeepFileIsRejectedWithoutCrashing) {
  const std::string path = tmp.file("deep.xml");
  ZelTest::writeFile(path, "<?xml version=\"1.0\"?>\n" + nested(300000) + "\n");
  ZelConfiguration config;
  EXPECT_EQ(tooDeep(2, 3000), loadFailure(config, path));
  EXPECT_FALSE(config.isLoaded());
}

TEST_F(ZelConfigurationTest, NestingBroughtInByEntitiesCountsToo) {
  // &f; opens 600 levels; &e; opens 600 levels around &f;. The depth is
  // counted on the elements the parser reports, after entity expansion.
  std::string outer;
  for (int i = 0; i < 600; ++i) outer += "<c>";
  outer += "&f;";
  for (int i = 0; i < 600; ++i) outer += "</c>";
  const std::string doctype =
      "<!DOCTYPE r [<!ENTITY f \"" + nested(600) + "\"><!ENTITY e \"" + outer + "\">]>";
  ZelConfiguration config;
  config.load(doctype + "<r>&f;</r>");
  NodeListPtr all(config.getElementsByTagName("a"));
  EXPECT_EQ(600u, all->length());
  const std::string reason = loadFailure(config, doctype + "<r>&e;</r>");
  EXPECT_EQ(0u, reason.find("elements nested deeper than the limit of 1000 levels")) << reason;
}

TEST_F(ZelConfigurationTest, MalformedDeepTextReportsTheLimitFirst) {
  // The limit is checked while parsing, so a deep text that would also fail
  // later (it is never closed) is rejected for its depth.
  ZelConfiguration config;
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "<a>";
  EXPECT_EQ(tooDeep(1, 3000), loadFailure(config, text));
}

// --- getElementsByTagName ------------------------------------------------------------

TEST_F(ZelConfigurationTest, GetElementsByTagNameBeforeLoadThrowsNullPointerException) {
  ZelConfiguration config;
  EXPECT_THROW(config.getElementsByTagName("a"), Poco::NullPointerException);
  try {
    config.getElementsByTagName("a");
  } catch (const Poco::NullPointerException& e) {
    EXPECT_EQ(Poco::NullPointerException().displayText(), e.displayText());
  }
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameAfterUnloadThrowsNullPointerException) {
  ZelConfiguration config;
  config.load("<a/>");
  config.unload();
  EXPECT_THROW(config.getElementsByTagName("a"), Poco::NullPointerException);
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameFindsAllDepthsInDocumentOrder) {
  ZelConfiguration config;
  config.load("<r><v>1</v><g><v>2</v><h><v>3</v></h></g><v>4</v></r>");
  EXPECT_EQ((std::vector<std::string>{"1", "2", "3", "4"}), textsOf(config, "v"));
  NodeListPtr none(config.getElementsByTagName("nothing"));
  EXPECT_EQ(0u, none->length());
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameListsWhatPocosOwnListLists) {
  const std::string text =
      "<r xmlns:n='urn:x'><v>1</v><n:v>2</n:v><g><v>3<v>4</v></v><!--v--><w/></g><?v x?><v/></r>";
  ZelConfiguration config;
  config.load(text);
  Poco::XML::DOMParser parser;
  parser.setFeature(Poco::XML::DOMParser::FEATURE_FILTER_WHITESPACE, true);
  Poco::AutoPtr<Poco::XML::Document> document(parser.parseString(text));
  for (const char* name : {"v", "n:v", "w", "g", "r", "*", "none", ""}) {
    NodeListPtr ours(config.getElementsByTagName(name));
    NodeListPtr pocos(document->getElementsByTagName(name));
    ASSERT_EQ(pocos->length(), ours->length()) << name;
    for (unsigned long i = 0; i < ours->length(); ++i) {
      EXPECT_EQ(pocos->item(i)->nodeName(), ours->item(i)->nodeName()) << name << " " << i;
      EXPECT_EQ(config.get_text(static_cast<Poco::XML::Element*>(pocos->item(i))),
                config.get_text(static_cast<Poco::XML::Element*>(ours->item(i))))
          << name << " " << i;
    }
  }
  NodeListPtr all(config.getElementsByTagName("*"));
  EXPECT_EQ(8u, all->length());  // r v n:v g v v w v
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameItemPastTheEndIsNull) {
  ZelConfiguration config;
  config.load("<r><v>1</v></r>");
  NodeListPtr list(config.getElementsByTagName("v"));
  ASSERT_EQ(1u, list->length());
  EXPECT_NE(nullptr, list->item(0));
  EXPECT_EQ(nullptr, list->item(1));
  EXPECT_EQ(nullptr, list->item(ULONG_MAX));
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameListKeepsItsElementsAliveAfterUnload) {
  ZelConfiguration config;
  config.load("<r><v>one</v><v>two</v></r>");
  NodeListPtr list(config.getElementsByTagName("v"));
  config.unload();
  config.load("<r><v>other</v></r>");
  // The list still holds the first document (AddressSanitizer and the
  // memcheck run see any use after free or leak here).
  ASSERT_EQ(2u, list->length());
  EXPECT_EQ("two", config.get_text(static_cast<Poco::XML::Element*>(list->item(1))));
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameListCanBeHandedToTheDocumentsReleasePool) {
  ZelConfiguration config;
  config.load("<r><v>1</v></r>");
  Poco::XML::NodeList* list = config.getElementsByTagName("v");
  // Released with the document's auto-release pool instead of by the caller:
  // the memcheck run sees a leak if the list and the document keep each
  // other alive.
  list->autoRelease();
  EXPECT_EQ(1u, list->length());
  EXPECT_EQ("1", config.get_text(static_cast<Poco::XML::Element*>(list->item(0))));
  config.unload();
}

TEST_F(ZelConfigurationTest, GetElementsByTagNameWalksManyEqualElementsInOrder) {
  std::string text = "<r>";
  for (int i = 0; i < 32000; ++i) text += "<v>" + std::to_string(i) + "</v>";
  text += "</r>";
  ZelConfiguration config;
  config.load(text);
  NodeListPtr list(config.getElementsByTagName("v"));
  ASSERT_EQ(32000u, list->length());
  for (unsigned long i = 0; i < list->length(); ++i)
    ASSERT_EQ(std::to_string(i), config.get_text(static_cast<Poco::XML::Element*>(list->item(i))));
}

// --- get_text ---------------------------------------------------------------------

TEST_F(ZelConfigurationTest, GetTextJoinsDirectTextSkippingCommentsAndChildElements) {
  ZelConfiguration config;
  config.load("<v>a<!--c-->b<x>y</x>c</v>");
  Poco::XML::Element* v = firstElement(config, "v");
  ASSERT_NE(nullptr, v);
  EXPECT_EQ("abc", config.get_text(v));
}

TEST_F(ZelConfigurationTest, GetTextSkipsCdataAndProcessingInstructions) {
  ZelConfiguration config;
  config.load("<v>a<![CDATA[skipped]]>b<?pi data?>c</v>");
  EXPECT_EQ("abc", config.get_text(firstElement(config, "v")));
}

TEST_F(ZelConfigurationTest, GetTextOfWhiteSpaceOnlyElementIsEmpty) {
  ZelConfiguration config;
  config.load("<r><v>   \n\t </v><e/></r>");
  EXPECT_EQ("", config.get_text(firstElement(config, "v")));
  EXPECT_EQ("", config.get_text(firstElement(config, "e")));
}

TEST_F(ZelConfigurationTest, GetTextKeepsWhiteSpaceInsideText) {
  ZelConfiguration config;
  config.load("<v>  a b  </v>");
  EXPECT_EQ("  a b  ", config.get_text(firstElement(config, "v")));
}

TEST_F(ZelConfigurationTest, GetTextJoinsManyTextChildrenInOrder) {
  // Comments split the text into 2 000 text nodes.
  std::string text = "<v>";
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    text += std::to_string(i % 10) + "<!---->";
    expected += std::to_string(i % 10);
  }
  text += "</v>";
  ZelConfiguration config;
  config.load(text);
  EXPECT_EQ(expected, config.get_text(firstElement(config, "v")));
}

TEST_F(ZelConfigurationTest, GetTextWorksWithoutOwnDocument) {
  ZelConfiguration source;
  source.load("<v>text</v>");
  ZelConfiguration empty;
  EXPECT_EQ("text", empty.get_text(firstElement(source, "v")));
}

// --- getElementValue ---------------------------------------------------------------

TEST_F(ZelConfigurationTest, GetElementValueReturnsTextOfSingleMatch) {
  ZelConfiguration config;
  config.load("<r><v>1</v></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("1", ZelConfiguration::getElementValue(config, r, "v"));
  std::string value = "unchanged";
  EXPECT_TRUE(ZelConfiguration::getElementValue(config, r, "v", value));
  EXPECT_EQ("1", value);
}

TEST_F(ZelConfigurationTest, GetElementValueIsEmptyForTwoMatchesWhileBoolOverloadTakesLast) {
  ZelConfiguration config;
  config.load("<r><v>1</v><g><v>2</v></g></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("", ZelConfiguration::getElementValue(config, r, "v"));
  std::string value;
  EXPECT_TRUE(ZelConfiguration::getElementValue(config, r, "v", value));
  EXPECT_EQ("2", value);
}

TEST_F(ZelConfigurationTest, GetElementValueWithoutMatch) {
  ZelConfiguration config;
  config.load("<r><v>1</v></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("", ZelConfiguration::getElementValue(config, r, "missing"));
  std::string value = "unchanged";
  EXPECT_FALSE(ZelConfiguration::getElementValue(config, r, "missing", value));
  EXPECT_EQ("unchanged", value);
}

TEST_F(ZelConfigurationTest, GetElementValueLooksOnlyBelowTheElement) {
  ZelConfiguration config;
  config.load("<r><v>outside</v><g><v>inside</v></g></r>");
  Poco::XML::Element* g = firstElement(config, "g");
  EXPECT_EQ("inside", ZelConfiguration::getElementValue(config, g, "v"));
  // The element itself does not count as its own descendant.
  EXPECT_EQ("", ZelConfiguration::getElementValue(config, g, "g"));
}

TEST_F(ZelConfigurationTest, GetElementValueOverloadsOnManyMatchesAtAnyDepth) {
  std::string text = "<r>";
  for (int i = 0; i < 5000; ++i) text += "<g><v>" + std::to_string(i) + "</v></g>";
  text += "<h><v>last</v></h></r>";
  ZelConfiguration config;
  config.load(text);
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("", ZelConfiguration::getElementValue(config, r, "v"));
  std::string value;
  EXPECT_TRUE(ZelConfiguration::getElementValue(config, r, "v", value));
  EXPECT_EQ("last", value);
  // Below one <h> there is exactly one.
  EXPECT_EQ("last", ZelConfiguration::getElementValue(config, firstElement(config, "h"), "v"));
}

TEST_F(ZelConfigurationTest, GetElementValueStarMatchesAnyElement) {
  ZelConfiguration config;
  config.load("<r><g><v>1</v></g></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  // Two elements below r (g and v): not exactly one.
  EXPECT_EQ("", ZelConfiguration::getElementValue(config, r, "*"));
  std::string value;
  EXPECT_TRUE(ZelConfiguration::getElementValue(config, r, "*", value));
  EXPECT_EQ("1", value);
  EXPECT_EQ("1", ZelConfiguration::getElementValue(config, firstElement(config, "g"), "*"));
}

TEST_F(ZelConfigurationTest, GetElementValueGivesDirectTextOfTheMatch) {
  ZelConfiguration config;
  config.load("<r><v>a<w>deep</w>b</v></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("ab", ZelConfiguration::getElementValue(config, r, "v"));
}

}  // namespace

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

TEST_F(ZelConfigurationTest, GetElementValueGivesDirectTextOfTheMatch) {
  ZelConfiguration config;
  config.load("<r><v>a<w>deep</w>b</v></r>");
  Poco::XML::Element* r = firstElement(config, "r");
  EXPECT_EQ("ab", ZelConfiguration::getElementValue(config, r, "v"));
}

}  // namespace

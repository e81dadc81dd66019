// Tests of Zel::XPathUtil: taking apart and building instance paths.
#include <zel/XPathUtil.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using Zel::XPathUtil;

// --- getTypeName ------------------------------------------------------------------

TEST(XPathUtil, GetTypeNameOfLastStep) {
  EXPECT_EQ(XPathUtil::getTypeName("/a:T[k=1]/U[x=2]"), "U");
  EXPECT_EQ(XPathUtil::getTypeName("/A/B/C"), "C");
}

TEST(XPathUtil, GetTypeNameKeepsNamespacePrefix) {
  EXPECT_EQ(XPathUtil::getTypeName("/a:T[k=1]"), "a:T");
  EXPECT_EQ(XPathUtil::getTypeName("ns:Type[k=1]"), "ns:Type");
}

TEST(XPathUtil, GetTypeNameOfPathEndingInSlashOrEmptyIsEmpty) {
  EXPECT_EQ(XPathUtil::getTypeName("/a/"), "");
  EXPECT_EQ(XPathUtil::getTypeName("/"), "");
  EXPECT_EQ(XPathUtil::getTypeName(""), "");
}

TEST(XPathUtil, GetTypeNameWithoutSlashIsWholeStep) {
  EXPECT_EQ(XPathUtil::getTypeName("T"), "T");
  EXPECT_EQ(XPathUtil::getTypeName("T[k=1]"), "T");
}

TEST(XPathUtil, GetTypeNameIsTrimmed) {
  EXPECT_EQ(XPathUtil::getTypeName("/ U [x=1]"), "U");
  EXPECT_EQ(XPathUtil::getTypeName("/\tU\r\n"), "U");
  // Bytes of 128 and above are not white space.
  EXPECT_EQ(XPathUtil::getTypeName("/\xa0U\xa0"), "\xa0U\xa0");
}

TEST(XPathUtil, GetTypeNameCutsAtSlashInsideKey) {
  // No knowledge of predicates: a "/" in a key value starts a new step.
  EXPECT_EQ(XPathUtil::getTypeName("/A[path=/var]"), "var]");
}

// --- popTypeName ------------------------------------------------------------------

TEST(XPathUtil, PopTypeNameTakesLastStep) {
  std::string path = "/A[k=1]/B[k=2]";
  std::string type;
  EXPECT_TRUE(XPathUtil::popTypeName(path, type));
  EXPECT_EQ(path, "/A[k=1]");
  EXPECT_EQ(type, "B");
  EXPECT_TRUE(XPathUtil::popTypeName(path, type));
  EXPECT_EQ(path, "");
  EXPECT_EQ(type, "A");
}

TEST(XPathUtil, PopTypeNameWithoutSlashEmptiesPath) {
  std::string path = "B";
  std::string type;
  EXPECT_TRUE(XPathUtil::popTypeName(path, type));
  EXPECT_EQ(path, "");
  EXPECT_EQ(type, "B");
}

TEST(XPathUtil, PopTypeNameShortensPathEvenWhenResultIsFalse) {
  std::string path = "/A/";
  std::string type = "old";
  EXPECT_FALSE(XPathUtil::popTypeName(path, type));
  EXPECT_EQ(path, "/A");
  EXPECT_EQ(type, "");
}

TEST(XPathUtil, PopTypeNameOnEmptyPath) {
  std::string path;
  std::string type = "old";
  EXPECT_FALSE(XPathUtil::popTypeName(path, type));
  EXPECT_EQ(path, "");
  EXPECT_EQ(type, "");
}

TEST(XPathUtil, PopTypeNameOnSameStringForBothArguments) {
  std::string s = "/A[k=1]/B[k=2]";
  EXPECT_TRUE(XPathUtil::popTypeName(s, s));
  EXPECT_EQ(s, "B");
}

// --- getKeyValue ------------------------------------------------------------------

TEST(XPathUtil, GetKeyValueOfLastPredicateIsTrimmed) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k=1]/B[n= 7 ]"), "7");
}

TEST(XPathUtil, GetKeyValueKeepsQuotes) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k='x']"), "'x'");
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k=\"x\"]"), "\"x\"");
}

TEST(XPathUtil, GetKeyValueMayComeFromEarlierStep) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k=1]/B"), "1");
}

TEST(XPathUtil, GetKeyValueWithoutEqualsIsEmpty) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A"), "");
  EXPECT_EQ(XPathUtil::getKeyValue(""), "");
}

TEST(XPathUtil, GetKeyValueWithoutClosingBracketRunsToEnd) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k= 1 "), "1");
  EXPECT_EQ(XPathUtil::getKeyValue("/A[x]/B[k=2"), "2");
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k="), "");
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k=]"), "");
}

TEST(XPathUtil, GetKeyValueUsesLastEquals) {
  EXPECT_EQ(XPathUtil::getKeyValue("/A[k=a=b]"), "b");
}

// --- getParentInstance --------------------------------------------------------

TEST(XPathUtil, GetParentInstanceCutsLastStep) {
  EXPECT_EQ(XPathUtil::getParentInstance("/A[k=1]/B[k=2]"), "/A[k=1]");
  EXPECT_EQ(XPathUtil::getParentInstance("/A/"), "/A");
}

TEST(XPathUtil, GetParentInstanceOfRootOrSingleStepIsEmpty) {
  EXPECT_EQ(XPathUtil::getParentInstance("/Type[k=1]"), "");
  EXPECT_EQ(XPathUtil::getParentInstance("A"), "");
  EXPECT_EQ(XPathUtil::getParentInstance(""), "");
}

// --- getInstance ------------------------------------------------------------------

TEST(XPathUtil, GetInstanceAppendsStepToParent) {
  std::string s;
  EXPECT_TRUE(XPathUtil::getInstance("ns", "/X[id=1]", "T", "id", "2", s));
  EXPECT_EQ(s, "/X[id=1]/ns:T[id=2]");
}

TEST(XPathUtil, GetInstanceReplacesOldContentWhenParentGiven) {
  std::string s = "old";
  EXPECT_TRUE(XPathUtil::getInstance("", "/X[id=1]", "T", "id", "2", s));
  EXPECT_EQ(s, "/X[id=1]/T[id=2]");
}

TEST(XPathUtil, GetInstanceOmitsPredicateWithoutKeyValueOrName) {
  std::string s;
  EXPECT_TRUE(XPathUtil::getInstance("ns", "/X[id=1]", "T", "id", "", s));
  EXPECT_EQ(s, "/X[id=1]/ns:T");
  s.clear();
  EXPECT_TRUE(XPathUtil::getInstance("ns", "/X[id=1]", "T", "", "2", s));
  EXPECT_EQ(s, "/X[id=1]/ns:T");
}

TEST(XPathUtil, GetInstanceWithEmptyParentAppendsToInstance) {
  std::string s = "old";
  EXPECT_TRUE(XPathUtil::getInstance("ns", "", "T", "id", "2", s));
  EXPECT_EQ(s, "oldns:T[id=2]");
}

TEST(XPathUtil, GetInstanceAddsNoLeadingSlash) {
  std::string s;
  EXPECT_TRUE(XPathUtil::getInstance("", "", "T", "id", "2", s));
  EXPECT_EQ(s, "T[id=2]");
}

TEST(XPathUtil, GetInstanceWithEmptyTypeLeavesInstanceUnchanged) {
  std::string s = "unchanged";
  EXPECT_FALSE(XPathUtil::getInstance("ns", "/X[id=1]", "", "id", "2", s));
  EXPECT_EQ(s, "unchanged");
}

TEST(XPathUtil, GetInstanceAcceptsArgumentsReferringToInstance) {
  std::string s = "/X[id=1]";
  EXPECT_TRUE(XPathUtil::getInstance("", s, "T", "id", s, s));
  EXPECT_EQ(s, "/X[id=1]/T[id=/X[id=1]]");
  std::string t = "T";
  EXPECT_TRUE(XPathUtil::getInstance("", "", t, "", "", t));
  EXPECT_EQ(t, "TT");
}

TEST(XPathUtil, GetInstanceRoundTripsThroughGetters) {
  std::string s;
  ASSERT_TRUE(XPathUtil::getInstance("a", "", "Node", "name", "n1", s));
  ASSERT_TRUE(XPathUtil::getInstance("", s, "Port", "id", "7", s));
  EXPECT_EQ(s, "a:Node[name=n1]/Port[id=7]");
  EXPECT_EQ(XPathUtil::getTypeName(s), "Port");
  EXPECT_EQ(XPathUtil::getKeyValue(s), "7");
  EXPECT_EQ(XPathUtil::getParentInstance(s), "a:Node[name=n1]");
  EXPECT_EQ(XPathUtil::getTypeName(XPathUtil::getParentInstance(s)), "a:Node");
}

// --- Robustness ---------------------------------------------------------------------

TEST(XPathUtil, MalformedInputNeverThrows) {
  const std::string alphabet = std::string("/[]=:'\" \t\nAbz09\xa0\xff") + std::string(1, '\0');
  std::mt19937 rng(123);
  std::uniform_int_distribution<int> length(0, 30);
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  for (int i = 0; i < 20000; ++i) {
    std::string path;
    for (int n = length(rng); n > 0; --n) path.push_back(alphabet[pick(rng)]);
    std::string work = path;
    std::string type;
    std::string instance;
    ASSERT_NO_THROW({
      XPathUtil::getTypeName(path);
      XPathUtil::popTypeName(work, type);
      XPathUtil::getKeyValue(path);
      XPathUtil::getParentInstance(path);
      XPathUtil::getInstance(path, path, path, path, path, instance);
    });
    // The path always gets shorter (or stays empty), so a loop of pops ends.
    EXPECT_LT(work.size(), path.empty() ? 1u : path.size());
  }
}

}  // namespace

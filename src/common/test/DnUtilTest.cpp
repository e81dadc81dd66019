// Tests of Zel::DnUtil: splitting and building DNs, the containment check,
// the exported expression and the linear recogniser that replaces it.
#include <zel/DnUtil.h>

#include <Poco/RegularExpression.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Zel::DnUtil;

// --- Helpers ---------------------------------------------------------------

bool stdRegexAccepts(const std::string& dn) {
  static const std::regex expression(DnUtil::REGEXP_FOR_3GPP_DN, std::regex::ECMAScript);
  return std::regex_match(dn, expression);
}

bool pocoRegexAccepts(const std::string& dn) {
  static const Poco::RegularExpression expression(DnUtil::REGEXP_FOR_3GPP_DN);
  // The match(Match&) form: the bool form forbids empty matches, but the
  // expression accepts the empty DN. "^...$" makes any match a full match.
  Poco::RegularExpression::Match match;
  return expression.match(dn, match) > 0 && match.offset == 0 && match.length == dn.size();
}

// A small model repository built in the test: records are zero-filled and
// linked by pointers into containers that never reallocate after setup.
class MocGraph {
 public:
  ZelOamSpiMoc* addClass(const char* name) {
    mocs_.emplace_back(new ZelOamSpiMoc());
    mocs_.back()->name = name;
    return mocs_.back().get();
  }
  // Appends parent to child's list of possible parents.
  void addParent(ZelOamSpiMoc* child, ZelOamSpiMoc* parent) {
    containments_.emplace_back(new ZelOamSpiMocContainment());
    ZelOamSpiMocContainment* link = containments_.back().get();
    link->parentMoc = parent;
    ZelOamSpiMocContainment** tail = &child->childContainment;
    while (*tail != nullptr) tail = &(*tail)->nextContainmentSameChild;
    *tail = link;
  }

 private:
  std::vector<std::unique_ptr<ZelOamSpiMoc>> mocs_;
  std::vector<std::unique_ptr<ZelOamSpiMocContainment>> containments_;
};

// --- The exported expression -------------------------------------------------

TEST(DnUtil, RegexpTextIsExact) {
  // Spelled with ordinary escapes, independently of the raw literal in the
  // library.
  const char* expected =
      "^(\\s*|\\s*([A-Z][^,=+<>#;\\\".]*([.][a-z*][^,=+<>#;\\\".]*)?\\s*=\\s*"
      "([^,=+<>#;\\\"]*(\\\\[0-9a-fA-F][0-9a-fA-F])*)*\\s*,\\s*)*"
      "[A-Z][^,=+<>#;\\\".]*([.][a-z*][^,=+<>#;\\\".]*)?\\s*=\\s*"
      "([^,=+<>#;\\\"]*(\\\\[0-9a-fA-F][0-9a-fA-F])*)*\\s*)$";
  ASSERT_NE(DnUtil::REGEXP_FOR_3GPP_DN, nullptr);
  EXPECT_EQ(std::strlen(DnUtil::REGEXP_FOR_3GPP_DN), 214u);
  EXPECT_STREQ(DnUtil::REGEXP_FOR_3GPP_DN, expected);
}

TEST(DnUtil, RegexpPointerIsWritable) {
  const char* saved = DnUtil::REGEXP_FOR_3GPP_DN;
  DnUtil::REGEXP_FOR_3GPP_DN = "^$";
  EXPECT_STREQ(DnUtil::REGEXP_FOR_3GPP_DN, "^$");
  DnUtil::REGEXP_FOR_3GPP_DN = saved;
  EXPECT_EQ(std::strlen(DnUtil::REGEXP_FOR_3GPP_DN), 214u);
}

const std::vector<std::string>& pinnedAccepted() {
  static const std::vector<std::string> dns = {"", "  ", "ManagedElement=1, Equipment.serial = A\\2C", "A="};
  return dns;
}

const std::vector<std::string>& pinnedRejected() {
  static const std::vector<std::string> dns = {"a=1", "A=1,", "A=1+B=2"};
  return dns;
}

TEST(DnUtil, RegexpWithStdRegexAcceptsAndRejectsPinnedExamples) {
  for (const std::string& dn : pinnedAccepted()) EXPECT_TRUE(stdRegexAccepts(dn)) << "'" << dn << "'";
  for (const std::string& dn : pinnedRejected()) EXPECT_FALSE(stdRegexAccepts(dn)) << "'" << dn << "'";
}

TEST(DnUtil, RegexpWithPocoRegexAcceptsAndRejectsPinnedExamples) {
  for (const std::string& dn : pinnedAccepted()) EXPECT_TRUE(pocoRegexAccepts(dn)) << "'" << dn << "'";
  for (const std::string& dn : pinnedRejected()) EXPECT_FALSE(pocoRegexAccepts(dn)) << "'" << dn << "'";
}

// --- isValidDn ----------------------------------------------------------------

TEST(DnUtil, IsValidDnAcceptsAndRejectsPinnedExamples) {
  for (const std::string& dn : pinnedAccepted()) EXPECT_TRUE(DnUtil::isValidDn(dn)) << "'" << dn << "'";
  for (const std::string& dn : pinnedRejected()) EXPECT_FALSE(DnUtil::isValidDn(dn)) << "'" << dn << "'";
}

TEST(DnUtil, IsValidDnAcceptsRealisticDns) {
  const std::vector<std::string> dns = {
      "SubNetwork=Europe,SubNetwork=Ireland,MeContext=NR01,ManagedElement=NR01,GNBDUFunction=1,NRCellDU=NR01-1",
      "SubNetwork=Europe,SubNetwork=Ireland,MeContext=NR01,ManagedElement=NR01,GNBDUFunction=1,"
      "NRCellDU=NR01gNodeBRadio00087-1",
      "ManagedElement=1",
      "ManagedElement=1,Equipment=1",
      "ManagedElement=1,Equipment=1,FieldReplaceableUnit=RRU-1",
      "ManagedElement=1,Equipment.serial=AB12345",
      "ManagedElement=1,Equipment.serialNumber = SN 001",
      "ManagedElement=1,Equipment.*=any",
      "ManagedElement=1,Transport=1,Router=OAM,InterfaceIPv4=1,AddressIPv4=1",
      "ManagedElement=1,SystemFunctions=1,Fm=1,FmAlarmModel=Nr,FmAlarmType=CellDown",
      "ManagedElement=1,Equipment=rack\\2C1",
      "ManagedElement=1,User=john\\3Ddoe\\2b",
      "ManagedElement=1,Note=a\\b",
      "ManagedElement=1,Note=\\zz\\",
      "ManagedElement=1,Interface=eth0.100",
      "ManagedElement=1,Host=10.0.0.1",
      "ManagedElement=1,Path=/var/log/messages",
      "ManagedElement=1,Cell=[a]{b}|c(d)",
      "ManagedElement=Sm\xc3\xb8rum",
      " ManagedElement = 1 , Equipment = 1 ",
      "\tManagedElement=1,\n Equipment=1\r\n",
      "ManagedElement=1,Equipment=",
      "Managed Element=1",
      "ManagedElement =1,Equipment .serial=2",
      "A=1,B=2,C=3",
      "X=,Y=,Z=",
  };
  for (const std::string& dn : dns) EXPECT_TRUE(DnUtil::isValidDn(dn)) << "'" << dn << "'";
}

TEST(DnUtil, IsValidDnRejectsMalformedDns) {
  const std::vector<std::string> dns = {
      "managedElement=1",
      "ManagedElement=1,",
      "ManagedElement=1, ",
      "ManagedElement=1+Equipment=1",
      "/ManagedElement=1",
      ",ManagedElement=1",
      "ManagedElement=1,,Equipment=1",
      "ManagedElement",
      "ManagedElement=1,Equipment",
      "ManagedElement=a=b",
      "ManagedElement=1;Equipment=1",
      "ManagedElement=\"1\"",
      "ManagedElement=<1>",
      "ManagedElement=#1",
      "ManagedElement.Key=1",
      "ManagedElement.=1",
      "ManagedElement. key=1",
      "ManagedElement.a.b=1",
      "ManagedElement=1,1Equipment=1",
      "ManagedElement=1, equipment=1",
      "=1",
      " =1",
      "\xc3\x84quipment=1",
      "SubNetwork=Europe,MeContext=NR01,NRCellDU=NR01gNodeBRadio00087-1#",
  };
  for (const std::string& dn : dns) EXPECT_FALSE(DnUtil::isValidDn(dn)) << "'" << dn << "'";
}

TEST(DnUtil, IsValidDnTreatsOnlyAsciiSpacesAsWhiteSpace) {
  EXPECT_TRUE(DnUtil::isValidDn(" \t\n\v\f\r"));
  EXPECT_TRUE(DnUtil::isValidDn("\v\fA=1,\v\fB=2"));
  // Non-breaking space (Latin-1 and UTF-8) is an ordinary byte: fine inside a
  // value, but not where only blanks may stand.
  EXPECT_TRUE(DnUtil::isValidDn("A=1\xa0"));
  EXPECT_FALSE(DnUtil::isValidDn("\xa0"));
  EXPECT_FALSE(DnUtil::isValidDn("\xc2\xa0" "A=1"));
  EXPECT_FALSE(DnUtil::isValidDn("A=1,\xa0" "B=2"));
}

TEST(DnUtil, IsValidDnAcceptsEmbeddedNulInValue) {
  EXPECT_TRUE(DnUtil::isValidDn(std::string("A=1\0x", 5)));
  EXPECT_FALSE(DnUtil::isValidDn(std::string("\0A=1", 4)));
}

TEST(DnUtil, IsValidDnHandlesLongDnsThatDefeatBacktrackingEngines) {
  std::string longValue = "SubNetwork=Europe,NRCellDU=" + std::string(10000, 'x');
  EXPECT_TRUE(DnUtil::isValidDn(longValue));
  EXPECT_FALSE(DnUtil::isValidDn(longValue + "#"));
  std::string manyRdns;
  for (int i = 0; i < 2000; ++i) manyRdns += (i == 0 ? "" : ",") + std::string("Rdn=") + std::to_string(i);
  EXPECT_TRUE(DnUtil::isValidDn(manyRdns));
  EXPECT_FALSE(DnUtil::isValidDn(manyRdns + ","));
}

// --- isValidDn against std::regex on random input ------------------------------

// Bytes the expression treats specially, plus ordinary ones from each class.
const std::string& differentialAlphabet() {
  static const std::string alphabet = std::string("AMZambz*.=,+<>#;\"\\09fFG- \t\n\v\f\r\x80\xa0\xc3\xff") +
                                      std::string(1, '\0');
  return alphabet;
}

char pickOne(std::mt19937& rng, const std::string& alphabet) {
  return alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(rng)];
}

std::string randomString(std::mt19937& rng, const std::string& alphabet, int maxLength) {
  std::uniform_int_distribution<int> length(0, maxLength);
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  std::string s;
  for (int i = length(rng); i > 0; --i) s.push_back(alphabet[pick(rng)]);
  return s;
}

// How big the random inputs get. Backtracking engines take time exponential
// in the number of value characters (and blanks next to them), so the limits
// differ per engine.
struct InputLimits {
  int maxRandomLength;   // plain random strings
  int valueBudget;       // value characters of all RDNs of a DN-shaped string
  int maxBlanks;         // blanks in one run
  int maxBacktracking;   // bound of backtrackingLoad(), 0 for none
};

// Characters in value position: the runs without , = + < > # ; " that follow
// an "=", added up over the string. A backtracking engine's time grows
// exponentially with this (the runs multiply when a match fails late).
int backtrackingLoad(const std::string& s) {
  static const std::string delimiters(",=+<>#;\"");
  int load = 0;
  bool afterEquals = false;
  for (char c : s) {
    if (delimiters.find(c) != std::string::npos)
      afterEquals = c == '=';
    else if (afterEquals)
      ++load;
  }
  return load;
}

// DN-shaped text: RDNs of mostly valid parts joined by ",", with blanks in
// the places the expression allows them, then possibly one random edit.
std::string randomDnLike(std::mt19937& rng, const InputLimits& limits) {
  const std::string& any = differentialAlphabet();
  auto chance = [&rng](int percent) { return std::uniform_int_distribution<int>(0, 99)(rng) < percent; };
  auto blanks = [&]() { return chance(25) ? randomString(rng, " \t\n\v\f\r", limits.maxBlanks) : std::string(); };
  int valueBudget = limits.valueBudget;
  std::string dn = blanks();
  const int rdns = std::uniform_int_distribution<int>(1, 3)(rng);
  for (int r = 0; r < rdns; ++r) {
    if (r > 0) dn += "," + blanks();
    dn.push_back(pickOne(rng, chance(90) ? "AMZ" : any));
    dn += randomString(rng, chance(80) ? "Ab1 -" : any, 3);
    if (chance(35)) {
      dn.push_back('.');
      dn.push_back(pickOne(rng, chance(85) ? "bz*" : any));
      dn += randomString(rng, chance(80) ? "k1 " : any, 2);
    }
    dn += blanks() + (chance(95) ? "=" : "") + blanks();
    const int valueLength = std::uniform_int_distribution<int>(0, valueBudget)(rng);
    valueBudget -= valueLength;
    for (int i = 0; i < valueLength; ++i) {
      if (chance(15))
        dn += std::string("\\") + pickOne(rng, "09afAFgG");
      else
        dn.push_back(pickOne(rng, chance(80) ? "x1. \\" : any));
    }
    dn += blanks();
  }
  if (chance(40)) {
    std::uniform_int_distribution<std::size_t> where(0, dn.size());
    const std::size_t at = where(rng);
    const char c = pickOne(rng, any);
    switch (std::uniform_int_distribution<int>(0, 2)(rng)) {
      case 0:
        dn.insert(at, 1, c);
        break;
      case 1:
        if (at < dn.size()) dn.erase(at, 1);
        break;
      default:
        if (at < dn.size()) dn[at] = c;
        break;
    }
  }
  return dn;
}

std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f) {
      out.push_back(static_cast<char>(c));
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

// Compares isValidDn with an engine on random strings, half plain random,
// half DN-shaped. Both outcomes must be well represented, or the comparison
// proves little.
template <typename Engine>
void expectAgreementOnRandomInput(Engine accepts, unsigned seed, int count, const InputLimits& limits) {
  std::mt19937 rng(seed);
  int accepted = 0;
  int mismatches = 0;
  int skipped = 0;
  for (int i = 0; i < count && mismatches < 10; ++i) {
    const std::string dn = i % 2 == 0 ? randomString(rng, differentialAlphabet(), limits.maxRandomLength)
                                      : randomDnLike(rng, limits);
    if (limits.maxBacktracking > 0 && backtrackingLoad(dn) > limits.maxBacktracking) {
      ++skipped;
      continue;
    }
    const bool expected = accepts(dn);
    accepted += expected ? 1 : 0;
    if (DnUtil::isValidDn(dn) != expected) {
      ++mismatches;
      ADD_FAILURE() << "'" << printable(dn) << "': the engine says " << expected;
    }
  }
  const int compared = count - skipped;
  EXPECT_GT(compared, count / 2);
  EXPECT_GT(accepted, compared / 6);
  EXPECT_LT(accepted, compared * 5 / 6);
}

// std::regex's default (backtracking) executor: small inputs only.
TEST(DnUtil, IsValidDnAgreesWithStdRegexOnRandomStrings) {
  expectAgreementOnRandomInput(stdRegexAccepts, 20240611, 3000, InputLimits{8, 5, 1, 6});
}

// PCRE backtracks too, but copes with somewhat longer values.
TEST(DnUtil, IsValidDnAgreesWithPocoRegexOnRandomStrings) {
  expectAgreementOnRandomInput(pocoRegexAccepts, 77, 8000, InputLimits{12, 9, 2, 12});
}

#ifdef __GLIBCXX__
// The same std::regex ECMAScript grammar run by the library's non-backtracking
// (breadth-first) executor, which stays polynomial, on longer inputs.
TEST(DnUtil, IsValidDnAgreesWithStdRegexNfaOnLongerRandomStrings) {
  static const std::regex expression(DnUtil::REGEXP_FOR_3GPP_DN,
                                     std::regex::ECMAScript | std::regex_constants::__polynomial);
  auto accepts = [](const std::string& dn) { return std::regex_match(dn, expression); };
  expectAgreementOnRandomInput(accepts, 31337, 20000, InputLimits{24, 24, 3, 0});
}
#endif

// --- popLeafClass ---------------------------------------------------------------

TEST(DnUtil, PopLeafClassTakesLeafAndDropsKeyName) {
  std::string dn = "ManagedElement=1,Equipment.serial=2";
  std::string leaf;
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(dn, "ManagedElement=1");
  EXPECT_EQ(leaf, "Equipment");
}

TEST(DnUtil, PopLeafClassOnSingleRdnEmptiesDn) {
  std::string dn = "A=1";
  std::string leaf = "old";
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(dn, "");
  EXPECT_EQ(leaf, "A");
}

TEST(DnUtil, PopLeafClassOnShortDnChangesNothing) {
  std::string dn = "AB";
  std::string leaf = "unchanged";
  EXPECT_FALSE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(dn, "AB");
  EXPECT_EQ(leaf, "unchanged");
  dn = "";
  EXPECT_FALSE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(dn, "");
  EXPECT_EQ(leaf, "unchanged");
}

TEST(DnUtil, PopLeafClassTrimsClass) {
  std::string dn = "ManagedElement=1, Equipment =3";
  std::string leaf;
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(leaf, "Equipment");
  EXPECT_EQ(dn, "ManagedElement=1");
}

TEST(DnUtil, PopLeafClassTrimsBeforeCuttingKey) {
  std::string dn = "X=1,Equipment .k=3";
  std::string leaf;
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(leaf, "Equipment ");
  EXPECT_EQ(dn, "X=1");
}

TEST(DnUtil, PopLeafClassReturnsTrueForEmptyClass) {
  std::string dn = "A=1,=2";
  std::string leaf = "old";
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(leaf, "");
  EXPECT_EQ(dn, "A=1");
  dn = "A=1,";
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(leaf, "");
  EXPECT_EQ(dn, "A=1");
}

TEST(DnUtil, PopLeafClassWithoutEqualsTakesWholeRdn) {
  std::string dn = "A=1, Leaf ";
  std::string leaf;
  EXPECT_TRUE(DnUtil::popLeafClass(dn, leaf));
  EXPECT_EQ(leaf, "Leaf");
  EXPECT_EQ(dn, "A=1");
}

TEST(DnUtil, PopLeafClassOnSameStringForBothArguments) {
  std::string s = "A=1,B.k=2";
  EXPECT_TRUE(DnUtil::popLeafClass(s, s));
  EXPECT_EQ(s, "B");
}

// --- getClass -------------------------------------------------------------------

TEST(DnUtil, GetClassCutsKeyThenTrims) {
  EXPECT_EQ(DnUtil::getClass("X=1,Equipment .k=3"), "Equipment");
  EXPECT_EQ(DnUtil::getClass("ManagedElement=1, Equipment =3"), "Equipment");
  EXPECT_EQ(DnUtil::getClass("ManagedElement=1,Equipment.serial=2"), "Equipment");
  EXPECT_EQ(DnUtil::getClass("A=1"), "A");
}

TEST(DnUtil, GetClassOfLeafWithoutEqualsIsEmpty) {
  EXPECT_EQ(DnUtil::getClass("A=1,B"), "");
}

TEST(DnUtil, GetClassOfShortDnIsEmpty) {
  EXPECT_EQ(DnUtil::getClass("AB"), "");
  EXPECT_EQ(DnUtil::getClass("A="), "");
  EXPECT_EQ(DnUtil::getClass(""), "");
}

// --- getId ------------------------------------------------------------------------

TEST(DnUtil, GetIdIsTextAfterLastEquals) {
  EXPECT_EQ(DnUtil::getId("A=1,B=2"), "2");
  EXPECT_EQ(DnUtil::getId("A=1,B= 2 "), " 2 ");
  EXPECT_EQ(DnUtil::getId("A="), "");
}

TEST(DnUtil, GetIdWithoutEqualsIsWholeDn) {
  EXPECT_EQ(DnUtil::getId("abc"), "abc");
  EXPECT_EQ(DnUtil::getId(""), "");
}

// --- getParentDn ---------------------------------------------------------------

TEST(DnUtil, GetParentDnOfSingleRdnIsEmpty) {
  EXPECT_EQ(DnUtil::getParentDn("A=1"), "");
  EXPECT_EQ(DnUtil::getParentDn(""), "");
}

TEST(DnUtil, GetParentDnCutsAtLastComma) {
  EXPECT_EQ(DnUtil::getParentDn("A=1,B=2,C=3"), "A=1,B=2");
  EXPECT_EQ(DnUtil::getParentDn("A=1,"), "A=1");
}

// --- getDn ------------------------------------------------------------------------

TEST(DnUtil, GetDnWithNullParentAndDefaultKey) {
  std::string dn = "old";
  EXPECT_TRUE(DnUtil::getDn(nullptr, "Equipment", "equipmentId", "1", dn));
  EXPECT_EQ(dn, "Equipment=1");
}

TEST(DnUtil, GetDnTreatsIdAsDefaultKeyIgnoringCase) {
  std::string dn;
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "ID", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment=1");
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "EquipmentId", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment=1");
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "EQUIPMENTID", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment=1");
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "id", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment=1");
}

TEST(DnUtil, GetDnWritesOtherKeyNames) {
  std::string dn;
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "serial", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment.serial=1");
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "equipmentIdx", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment.equipmentIdx=1");
  EXPECT_TRUE(DnUtil::getDn("ManagedElement=1", "Equipment", "", "1", dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment.=1");
}

TEST(DnUtil, GetDnWithEmptyParent) {
  std::string dn = "old";
  EXPECT_TRUE(DnUtil::getDn("", "Equipment", "ID", "1", dn));
  EXPECT_EQ(dn, "Equipment=1");
}

TEST(DnUtil, GetDnChecksAndEscapesNothing) {
  std::string dn;
  EXPECT_TRUE(DnUtil::getDn(" P=1 ", "a,b", "k=y", "v,=", dn));
  EXPECT_EQ(dn, " P=1 ,a,b.k=y=v,=");
}

TEST(DnUtil, GetDnAcceptsArgumentsPointingIntoResult) {
  std::string dn = "ManagedElement=1";
  EXPECT_TRUE(DnUtil::getDn(dn.c_str(), "Equipment", "ID", dn.c_str(), dn));
  EXPECT_EQ(dn, "ManagedElement=1,Equipment=ManagedElement=1");
}

TEST(DnUtil, GetDnWithNullClassNameThrowsStandardLogicError) {
  std::string dn = "kept";
  try {
    DnUtil::getDn("ManagedElement=1", nullptr, "ID", "1", dn);
    FAIL() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
  EXPECT_EQ(dn, "kept");
  EXPECT_THROW(DnUtil::getDn(nullptr, nullptr, "ID", "1", dn), std::logic_error);
}

TEST(DnUtil, GetDnWithNullKeyArgumentsThrowsInsteadOfCrashing) {
  std::string dn = "kept";
  EXPECT_THROW(DnUtil::getDn(nullptr, "Equipment", nullptr, "1", dn), std::logic_error);
  EXPECT_THROW(DnUtil::getDn(nullptr, "Equipment", "ID", nullptr, dn), std::logic_error);
  EXPECT_EQ(dn, "kept");
}

// --- getClassName -----------------------------------------------------------------

TEST(DnUtil, GetClassNameCutsAtFirstDot) {
  EXPECT_EQ(DnUtil::getClassName("Equipment.serial"), "Equipment");
  EXPECT_EQ(DnUtil::getClassName("Equipment"), "Equipment");
  EXPECT_EQ(DnUtil::getClassName(" Equipment .a.b"), " Equipment ");
  EXPECT_EQ(DnUtil::getClassName(".x"), "");
  EXPECT_EQ(DnUtil::getClassName(""), "");
}

TEST(DnUtil, GetClassNameOfNullThrowsStandardLogicError) {
  try {
    DnUtil::getClassName(nullptr);
    FAIL() << "no exception";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "basic_string::_M_construct null not valid");
  }
}

// --- checkDnChain -----------------------------------------------------------------

TEST(DnUtil, CheckDnChainOnRootClass) {
  MocGraph model;
  ZelOamSpiMoc* root = model.addClass("ManagedElement");
  EXPECT_EQ(DnUtil::checkDnChain("", root), 0);
  EXPECT_EQ(DnUtil::checkDnChain("A=1", root), 1);
  EXPECT_EQ(DnUtil::checkDnChain(" ", root), 1);
}

TEST(DnUtil, CheckDnChainWithNullArgumentsIsTwo) {
  MocGraph model;
  ZelOamSpiMoc* root = model.addClass("ManagedElement");
  EXPECT_EQ(DnUtil::checkDnChain(nullptr, root), 2);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1", nullptr), 2);
  EXPECT_EQ(DnUtil::checkDnChain(nullptr, nullptr), 2);
}

class DnUtilChain : public ::testing::Test {
 protected:
  void SetUp() override {
    managedElement = model.addClass("ManagedElement");
    equipment = model.addClass("Equipment");
    model.addParent(equipment, managedElement);
    // Two possible parents, the root second in the list.
    unit = model.addClass("Unit");
    model.addParent(unit, equipment);
    model.addParent(unit, managedElement);
    // Two-level chain Port -> Equipment -> ManagedElement.
    port = model.addClass("Port");
    model.addParent(port, equipment);
  }

  MocGraph model;
  ZelOamSpiMoc* managedElement = nullptr;
  ZelOamSpiMoc* equipment = nullptr;
  ZelOamSpiMoc* unit = nullptr;
  ZelOamSpiMoc* port = nullptr;
};

TEST_F(DnUtilChain, ParentIsRootClass) {
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1", equipment), 0);
  EXPECT_EQ(DnUtil::checkDnChain("Other=1", equipment), 1);
  EXPECT_EQ(DnUtil::checkDnChain("", equipment), 2);
}

TEST_F(DnUtilChain, PassesRdnsAboveModelRoot) {
  EXPECT_EQ(DnUtil::checkDnChain("SubNetwork=1,ManagedElement=1", equipment), 0);
  EXPECT_EQ(DnUtil::checkDnChain("garbage,,ManagedElement=1", equipment), 0);
  EXPECT_EQ(DnUtil::checkDnChain("SubNetwork=1,ManagedElement=1,Equipment=1", port), 0);
}

TEST_F(DnUtilChain, ComparesClassNamesExactly) {
  EXPECT_EQ(DnUtil::checkDnChain("managedElement=1", equipment), 1);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement.key=1", equipment), 0);
  EXPECT_EQ(DnUtil::checkDnChain(" ManagedElement =1", equipment), 0);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement .key=1", equipment), 1);
}

TEST_F(DnUtilChain, TriesEveryPossibleParent) {
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1,Equipment=1", unit), 0);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1", unit), 0);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1,Cabinet=1", unit), 1);
  EXPECT_EQ(DnUtil::checkDnChain("Cabinet=1,Equipment=1", unit), 1);
}

TEST_F(DnUtilChain, WalksTwoLevels) {
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1,Equipment=1", port), 0);
  EXPECT_EQ(DnUtil::checkDnChain("Other=1,Equipment=1", port), 1);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1", port), 1);
  EXPECT_EQ(DnUtil::checkDnChain("Equipment=1", port), 2);
  EXPECT_EQ(DnUtil::checkDnChain("AB,Equipment=1", port), 2);
  EXPECT_EQ(DnUtil::checkDnChain("", port), 2);
}

TEST_F(DnUtilChain, ContainmentWithoutParentClassEndsCheck) {
  ZelOamSpiMoc* orphan = model.addClass("Orphan");
  model.addParent(orphan, nullptr);
  EXPECT_EQ(DnUtil::checkDnChain("", orphan), 0);
  EXPECT_EQ(DnUtil::checkDnChain("Anything=1", orphan), 0);
}

TEST_F(DnUtilChain, SkipsParentsWithoutClassOrName) {
  ZelOamSpiMoc* nameless = model.addClass(nullptr);
  ZelOamSpiMoc* odd = model.addClass("Odd");
  // Only the first containment's missing parent ends the check; later ones
  // without a parent class, or whose class has no name, are passed over.
  model.addParent(odd, nameless);
  model.addParent(odd, nullptr);
  model.addParent(odd, managedElement);
  EXPECT_EQ(DnUtil::checkDnChain("ManagedElement=1", odd), 0);
  EXPECT_EQ(DnUtil::checkDnChain("X=1", odd), 1);
}

TEST_F(DnUtilChain, EndsOnCyclicModel) {
  ZelOamSpiMoc* a = model.addClass("Alpha");
  ZelOamSpiMoc* b = model.addClass("Beta");
  model.addParent(a, b);
  model.addParent(b, a);
  EXPECT_EQ(DnUtil::checkDnChain("Alpha=1,Beta=1,Alpha=2,Beta=2", a), 2);
  EXPECT_EQ(DnUtil::checkDnChain("Alpha=1,Gamma=1,Alpha=2,Beta=2", a), 1);
}

// --- Properties and robustness ---------------------------------------------------

std::string randomFrom(std::mt19937& rng, const std::string& first, const std::string& rest, int maxRest,
                       const std::string& last = std::string()) {
  std::string s(1, pickOne(rng, first));
  s += randomString(rng, rest, maxRest);
  if (!last.empty()) s.push_back(pickOne(rng, last));
  return s;
}

TEST(DnUtil, GetDnPartsComeBackAndResultIsValid) {
  // Attribute characters: anything but , = + < > # ; " and "."; values may
  // also hold "." and hex pairs.
  const std::string attributeChars = "abcXYZ019_-*/\\[]() \t\xc3\xa9";
  const std::string noBlank = "abcXYZ019_-*/\\[]()\xc3\xa9";
  const std::string valueChars = attributeChars + ".";
  std::mt19937 rng(4711);
  for (int i = 0; i < 3000; ++i) {
    std::string parent;
    const int depth = std::uniform_int_distribution<int>(0, 3)(rng);
    for (int level = 0; level <= depth; ++level) {
      const std::string cls = randomFrom(rng, "ABCMZ", attributeChars, 6, noBlank);
      const std::string key = std::uniform_int_distribution<int>(0, 1)(rng) == 0
                                  ? "id"
                                  : randomFrom(rng, "abz*", attributeChars, 6, noBlank);
      std::string value = randomString(rng, valueChars, 6);
      if (std::uniform_int_distribution<int>(0, 3)(rng) == 0) value += "\\2C";
      std::string dn;
      ASSERT_TRUE(DnUtil::getDn(parent.c_str(), cls.c_str(), key.c_str(), value.c_str(), dn));
      ASSERT_EQ(DnUtil::getClass(dn), cls) << dn;
      ASSERT_EQ(DnUtil::getId(dn), value) << dn;
      ASSERT_EQ(DnUtil::getParentDn(dn), parent) << dn;
      ASSERT_TRUE(DnUtil::isValidDn(dn)) << dn;
      std::string popped = dn;
      std::string leaf;
      if (dn.size() >= 3) {
        ASSERT_TRUE(DnUtil::popLeafClass(popped, leaf));
        ASSERT_EQ(leaf, cls) << dn;
        ASSERT_EQ(popped, parent) << dn;
      }
      parent = dn;
    }
  }
}

TEST(DnUtil, MalformedInputNeverThrows) {
  MocGraph model;
  ZelOamSpiMoc* root = model.addClass("A");
  ZelOamSpiMoc* child = model.addClass("B");
  model.addParent(child, root);
  ZelOamSpiMoc* grandChild = model.addClass("C");
  model.addParent(grandChild, child);
  std::mt19937 rng(99);
  const std::string alphabet = differentialAlphabet() + "ABC";
  for (int i = 0; i < 20000; ++i) {
    const std::string dn = i % 2 == 0 ? randomString(rng, alphabet, 40) : randomDnLike(rng, InputLimits{0, 20, 3, 0});
    std::string work = dn;
    std::string leaf;
    std::string out;
    ASSERT_NO_THROW({
      DnUtil::isValidDn(dn);
      DnUtil::popLeafClass(work, leaf);
      DnUtil::getClass(dn);
      DnUtil::getId(dn);
      DnUtil::getParentDn(dn);
      DnUtil::getClassName(dn.c_str());
      DnUtil::getDn(dn.c_str(), dn.c_str(), dn.c_str(), dn.c_str(), out);
      const int result = DnUtil::checkDnChain(dn.c_str(), grandChild);
      EXPECT_TRUE(result >= 0 && result <= 2);
    }) << printable(dn);
  }
}

}  // namespace

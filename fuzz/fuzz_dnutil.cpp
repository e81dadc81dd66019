// Fuzzes every DnUtil function on arbitrary text and checks each result
// against a plain restatement of the function's documented rule. checkDnChain
// runs against a small fixed model; isValidDn is cross-checked against the
// published regular expression on short inputs (where backtracking is cheap)
// and timed on long ones, where it must stay linear.
#include <chrono>
#include <regex>
#include <string>

#include <zel/DnUtil.h>
#include "FuzzSupport.h"

namespace {

using Zel::DnUtil;
using ZelFuzz::trimmed;

const size_t npos = std::string::npos;

// --- restatements of the documented rules ----------------------------------

bool refPopLeafClass(std::string& dn, std::string& leaf) {
  if (dn.size() < 3) return false;
  const size_t comma = dn.rfind(',');
  if (comma != npos) {
    leaf = dn.substr(comma + 1);
    dn.erase(comma);
  } else {
    leaf = dn;
    dn.clear();
  }
  const size_t equals = leaf.find('=');
  if (equals != npos) leaf.erase(equals);
  leaf = trimmed(leaf);
  const size_t dot = leaf.find('.');
  if (dot != npos) leaf.erase(dot);
  return true;
}

std::string refGetClass(const std::string& dn) {
  if (dn.size() <= 2) return "";
  const size_t comma = dn.rfind(',');
  const size_t start = comma == npos ? 0 : comma + 1;
  const size_t equals = dn.find('=', start);
  if (equals == npos) return "";
  std::string name = dn.substr(start, equals - start);
  const size_t dot = name.find('.');
  if (dot != npos) name.erase(dot);
  return trimmed(name);
}

std::string refGetId(const std::string& dn) {
  const size_t equals = dn.rfind('=');
  return equals == npos ? dn : dn.substr(equals + 1);
}

std::string refGetParentDn(const std::string& dn) {
  const size_t comma = dn.rfind(',');
  return comma == npos ? std::string() : dn.substr(0, comma);
}

bool equalsIgnoringAsciiCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

std::string refGetDn(const char* parent, const std::string& cls, const std::string& key, const std::string& value) {
  std::string dn = parent != nullptr && *parent != '\0' ? std::string(parent) + "," : std::string();
  if (!equalsIgnoringAsciiCase(key, cls + "id") && !equalsIgnoringAsciiCase(key, "id")) {
    dn += cls + "." + key;
  } else {
    dn += cls;
  }
  return dn + "=" + value;
}

// --- the fixed model --------------------------------------------------------
//   ManagedElement, SubNetwork: root classes
//   Equipment  in ManagedElement
//   Unit       in Equipment or ManagedElement
//   Port       in Unit, or in SubNetwork
//   Orphan     its first containment names no parent class
//   Loop       in Loop (a cycle: only the DN running out ends the walk)

ZelOamSpiMoc gManagedElement{"ManagedElement", {}, nullptr};
ZelOamSpiMoc gSubNetwork{"SubNetwork", {}, nullptr};
ZelOamSpiMocContainment gEquipmentInMe{{}, &gManagedElement, {}, nullptr};
ZelOamSpiMoc gEquipment{"Equipment", {}, &gEquipmentInMe};
ZelOamSpiMocContainment gUnitInMe{{}, &gManagedElement, {}, nullptr};
ZelOamSpiMocContainment gUnitInEquipment{{}, &gEquipment, {}, &gUnitInMe};
ZelOamSpiMoc gUnit{"Unit", {}, &gUnitInEquipment};
ZelOamSpiMocContainment gPortInSubNetwork{{}, &gSubNetwork, {}, nullptr};
ZelOamSpiMocContainment gPortInUnit{{}, &gUnit, {}, &gPortInSubNetwork};
ZelOamSpiMoc gPort{"Port", {}, &gPortInUnit};
ZelOamSpiMocContainment gOrphanNowhere{{}, nullptr, {}, nullptr};
ZelOamSpiMoc gOrphan{"Orphan", {}, &gOrphanNowhere};
ZelOamSpiMocContainment gLoopInLoop{{}, nullptr, {}, nullptr};
ZelOamSpiMoc gLoop{"Loop", {}, &gLoopInLoop};

const ZelOamSpiMoc* const kModel[] = {&gManagedElement, &gSubNetwork, &gEquipment, &gUnit,
                                      &gPort,           &gOrphan,     &gLoop};

int refCheckDnChain(const char* dn, const ZelOamSpiMoc* moc) {
  if (dn == nullptr || moc == nullptr) return 2;
  std::string rest = dn;
  const ZelOamSpiMocContainment* current = moc->childContainment;
  if (current == nullptr) return rest.empty() ? 0 : 1;
  for (;;) {
    if (current->parentMoc == nullptr) return 0;
    std::string leaf;
    if (!refPopLeafClass(rest, leaf)) return 2;
    const ZelOamSpiMoc* match = nullptr;
    for (const ZelOamSpiMocContainment* c = current; c != nullptr && match == nullptr;
         c = c->nextContainmentSameChild) {
      if (c->parentMoc != nullptr && leaf == c->parentMoc->name) match = c->parentMoc;
    }
    if (match == nullptr) return 1;
    current = match->childContainment;
    if (current == nullptr) return 0;
  }
}

// --- validation -------------------------------------------------------------

bool regexAccepts(const std::string& dn) {
  static const std::regex expression(DnUtil::REGEXP_FOR_3GPP_DN, std::regex::ECMAScript);
  return std::regex_match(dn, expression);
}

// isValidDn on a long text must finish in time proportional to its length:
// a linear pass over 64 KiB takes well under a millisecond even with the
// sanitizers, while a quadratic one makes billions of steps.
void checkLinearTime(const std::string& dn) {
  const auto start = std::chrono::steady_clock::now();
  (void)DnUtil::isValidDn(dn);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  FUZZ_CHECK(elapsed < std::chrono::seconds(1), "isValidDn took over a second on " + std::to_string(dn.size()) +
                                                    " bytes");
}

std::string repeated(const std::string& unit, size_t length) {
  std::string result;
  if (unit.empty()) return result;
  while (result.size() < length) result += unit;
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gLoopInLoop.parentMoc = &gLoop;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  // Splitting.
  {
    std::string dn = text;
    std::string leaf = "unchanged";
    std::string refDn = text;
    std::string refLeaf = "unchanged";
    const bool popped = DnUtil::popLeafClass(dn, leaf);
    FUZZ_CHECK(popped == refPopLeafClass(refDn, refLeaf), "popLeafClass result");
    FUZZ_CHECK(dn == refDn && leaf == refLeaf, "popLeafClass strings");
  }
  FUZZ_CHECK(DnUtil::getClass(text) == refGetClass(text), "getClass");
  FUZZ_CHECK(DnUtil::getId(text) == refGetId(text), "getId");
  FUZZ_CHECK(DnUtil::getParentDn(text) == refGetParentDn(text), "getParentDn");
  {
    const std::string cName = text.c_str();  // what a C string of these bytes holds
    FUZZ_CHECK(DnUtil::getClassName(text.c_str()) == cName.substr(0, cName.find('.')), "getClassName");
  }

  // Building: the input split at NUL bytes into parent, class, key and value.
  {
    ZelFuzz::Reader reader(data, size);
    const uint8_t flags = reader.byte();
    const std::string parent = reader.until('\0');
    const std::string cls = reader.until('\0');
    const std::string key = reader.until('\0');
    const std::string value = reader.until('\0');
    const char* parentArg = (flags & 1) != 0 ? nullptr : parent.c_str();
    std::string dn = "previous";
    FUZZ_CHECK(DnUtil::getDn(parentArg, cls.c_str(), key.c_str(), value.c_str(), dn), "getDn returns true");
    FUZZ_CHECK(dn == refGetDn(parentArg, cls, key, value), "getDn text");
  }

  // Checking against the model, and the null arguments.
  {
    ZelFuzz::Reader reader(data, size);
    const ZelOamSpiMoc* moc = kModel[reader.byte() % (sizeof(kModel) / sizeof(kModel[0]))];
    const std::string dn = reader.rest();
    const int result = DnUtil::checkDnChain(dn.c_str(), moc);
    FUZZ_CHECK(result == refCheckDnChain(dn.c_str(), moc),
               "checkDnChain " + std::to_string(result) + " for " + moc->name);
    FUZZ_CHECK(DnUtil::checkDnChain(nullptr, moc) == 2, "null dn");
    FUZZ_CHECK(DnUtil::checkDnChain(dn.c_str(), nullptr) == 2, "null moc");
  }

  // Validation.
  const bool valid = DnUtil::isValidDn(text);
  if (size <= 6) FUZZ_CHECK(valid == regexAccepts(text), "isValidDn disagrees with the expression");
  // One input in 32 (by length) is also stretched to 64 KiB and timed.
  if (size > 0 && size % 32 == 0) {
    checkLinearTime(repeated(text, 64 * 1024));
    checkLinearTime("A=" + repeated(text, 64 * 1024) + "+");
    checkLinearTime("A=" + repeated(text, 64 * 1024) + "\\4");
  }
  return 0;
}

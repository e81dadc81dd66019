// DnUtil.cpp - distinguished-name utilities.
#include <zel/DnUtil.h>

#include <Poco/String.h>

#include <stdexcept>
#include <string>

namespace Zel {

// Raw string: every backslash below is one character of the expression.
const char* DnUtil::REGEXP_FOR_3GPP_DN =
    R"re(^(\s*|\s*([A-Z][^,=+<>#;\".]*([.][a-z*][^,=+<>#;\".]*)?\s*=\s*([^,=+<>#;\"]*(\\[0-9a-fA-F][0-9a-fA-F])*)*\s*,\s*)*[A-Z][^,=+<>#;\".]*([.][a-z*][^,=+<>#;\".]*)?\s*=\s*([^,=+<>#;\"]*(\\[0-9a-fA-F][0-9a-fA-F])*)*\s*)$)re";

namespace {

// The C strings handed in are copied into std::string; a null pointer raises
// the standard logic error with the text callers have always seen for it,
// whatever wording the toolchain's own string constructor uses.
std::string requireString(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return std::string(text);
}

// --- Recogniser for the language of REGEXP_FOR_3GPP_DN ---------------------
//
// Because [^...] classes of the expression contain white space and the
// backslash, its language is simpler than its text:
//   DN    = WS*                                   (empty or blanks only)
//         | WS* RDN ( "," WS* RDN )*
//   RDN   = [A-Z] ATTR* ( "." [a-z*] ATTR* )? "=" VALUE*
//   ATTR  = any byte except , = + < > # ; " .
//   VALUE = any byte except , = + < > # ; "
// - "\s*" before "=" and before "," is absorbed by the attribute or value
//   runs, which already admit white space; only the blanks at the very start
//   and after each "," need their own rule (there an upper-case letter must
//   follow).
// - "(\\hh)*" inside a value adds nothing: the backslash and hex digits are
//   value characters anyway, so a value is any run of them.
// - PCRE's "$" also matches before a final newline; the trailing "\s*" can
//   take that newline, so the language is the same for both engines.

bool isWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isUpperAsciiLetter(char c) { return c >= 'A' && c <= 'Z'; }

bool isKeyNameStart(char c) { return (c >= 'a' && c <= 'z') || c == '*'; }

bool isValueChar(char c) {
  switch (c) {
    case ',':
    case '=':
    case '+':
    case '<':
    case '>':
    case '#':
    case ';':
    case '"':
      return false;
    default:
      return true;
  }
}

bool isAttributeChar(char c) { return c != '.' && isValueChar(c); }

// Advances pos over characters satisfying accept.
template <typename Predicate>
void skipWhile(const std::string& text, std::size_t& pos, Predicate accept) {
  while (pos < text.size() && accept(text[pos])) ++pos;
}

// Consumes one RDN starting at pos (leading blanks already skipped).
bool consumeRdn(const std::string& dn, std::size_t& pos) {
  if (pos >= dn.size() || !isUpperAsciiLetter(dn[pos])) return false;
  ++pos;
  skipWhile(dn, pos, isAttributeChar);
  if (pos < dn.size() && dn[pos] == '.') {
    ++pos;
    if (pos >= dn.size() || !isKeyNameStart(dn[pos])) return false;
    ++pos;
    skipWhile(dn, pos, isAttributeChar);
  }
  if (pos >= dn.size() || dn[pos] != '=') return false;
  ++pos;
  skipWhile(dn, pos, isValueChar);
  return true;
}

// Case-insensitive equality over ASCII letters only; other bytes compare
// exactly, independent of the process locale.
char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringAsciiCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (asciiLower(a[i]) != asciiLower(b[i])) return false;
  return true;
}

// The containment among head and its successors whose parent class is named
// className, or null.
const ZelOamSpiMocContainment* findParentNamed(const ZelOamSpiMocContainment* head,
                                               const std::string& className) {
  for (const ZelOamSpiMocContainment* c = head; c != nullptr; c = c->nextContainmentSameChild) {
    const ZelOamSpiMoc* parent = c->parentMoc;
    if (parent != nullptr && parent->name != nullptr && className == parent->name) return c;
  }
  return nullptr;
}

}  // namespace

bool DnUtil::isValidDn(const std::string& dn) {
  std::size_t pos = 0;
  skipWhile(dn, pos, isWhiteSpace);
  if (pos == dn.size()) return true;
  for (;;) {
    if (!consumeRdn(dn, pos)) return false;
    if (pos == dn.size()) return true;
    // consumeRdn stops only at the end or at a byte a value may not hold.
    if (dn[pos] != ',') return false;
    ++pos;
    skipWhile(dn, pos, isWhiteSpace);
  }
}

bool DnUtil::popLeafClass(std::string& dn, std::string& leafClass) {
  if (dn.size() < 3) return false;
  std::string leaf;
  std::string rest;
  const std::size_t comma = dn.rfind(',');
  if (comma != std::string::npos) {
    leaf = dn.substr(comma + 1);
    rest = dn.substr(0, comma);
  } else {
    leaf = dn;
  }
  const std::size_t equals = leaf.find('=');
  if (equals != std::string::npos) leaf.erase(equals);
  Poco::trimInPlace(leaf);
  // Cut after trimming: blanks in front of the key name's "." stay.
  const std::size_t dot = leaf.find('.');
  if (dot != std::string::npos) leaf.erase(dot);
  dn.swap(rest);
  leafClass.swap(leaf);
  return true;
}

std::string DnUtil::getClass(const std::string& dn) {
  if (dn.size() <= 2) return std::string();
  const std::size_t comma = dn.rfind(',');
  const std::size_t start = comma == std::string::npos ? 0 : comma + 1;
  const std::size_t equals = dn.find('=', start);
  if (equals == std::string::npos) return std::string();
  std::string cls = dn.substr(start, equals - start);
  // Cut before trimming: blanks in front of the key name's "." go too.
  const std::size_t dot = cls.find('.');
  if (dot != std::string::npos) cls.erase(dot);
  Poco::trimInPlace(cls);
  return cls;
}

std::string DnUtil::getId(const std::string& dn) {
  const std::size_t equals = dn.rfind('=');
  if (equals == std::string::npos) return dn;
  return dn.substr(equals + 1);
}

std::string DnUtil::getParentDn(const std::string& dn) {
  const std::size_t comma = dn.rfind(',');
  if (comma == std::string::npos) return std::string();
  return dn.substr(0, comma);
}

bool DnUtil::getDn(const char* parentDn, const char* className, const char* keyAttributeName,
                   const char* keyValue, std::string& dn) {
  // Built aside and moved in at the end, so a throwing call leaves dn as it
  // was and arguments may point into dn itself.
  std::string result;
  if (parentDn != nullptr) {
    const std::string parent(parentDn);
    result.reserve(parent.size() + 32);
    if (!parent.empty()) {
      result.append(parent);
      result.push_back(',');
    }
  } else {
    result.reserve(32);
  }
  const std::string cls = requireString(className);
  const std::string keyName = requireString(keyAttributeName);
  const std::string value = requireString(keyValue);

  const std::string defaultKeyName = cls + "id";
  result.append(cls);
  if (!equalsIgnoringAsciiCase(keyName, defaultKeyName) && !equalsIgnoringAsciiCase(keyName, "id")) {
    result.push_back('.');
    result.append(keyName);
  }
  result.push_back('=');
  result.append(value);
  dn = std::move(result);
  return true;
}

int DnUtil::checkDnChain(const char* dn, const ZelOamSpiMoc* moc) {
  if (dn == nullptr || moc == nullptr) return 2;
  std::string remaining(dn);
  const ZelOamSpiMocContainment* current = moc->childContainment;
  if (current == nullptr) return remaining.empty() ? 0 : 1;
  // Each round takes one RDN off, so the loop ends even on a cyclic model.
  for (;;) {
    if (current->parentMoc == nullptr) return 0;
    std::string leafClass;
    if (!popLeafClass(remaining, leafClass)) return 2;
    const ZelOamSpiMocContainment* match = findParentNamed(current, leafClass);
    if (match == nullptr) return 1;
    current = match->parentMoc->childContainment;
    if (current == nullptr) return 0;
  }
}

std::string DnUtil::getClassName(const char* name) {
  std::string cls = requireString(name);
  const std::size_t dot = cls.find('.');
  if (dot != std::string::npos) cls.erase(dot);
  return cls;
}

}  // namespace Zel

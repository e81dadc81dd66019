// DnUtil.h - building, splitting and checking 3GPP-style distinguished names.
//
// A distinguished name (DN) names a managed object by the chain of its
// relative distinguished names (RDNs), root first, leaf last, separated by
// ",":  "ManagedElement=1,Equipment=1". An RDN is "<attribute>=<value>"; the
// attribute is the class name ("Equipment") or the class name, "." and the
// key attribute's name ("Equipment.serial") when the key is named neither
// "<ClassName>id" nor "id". Characters that would clash with ",", "=" and so
// on are written in values as hex pairs ("\2C"); nothing here decodes them.
//
// The splitting functions cut at ",", "=" and "." as they stand (no quoting,
// no escaping). Malformed input gives empty or partial strings as documented
// per function; nothing here logs, and no input makes a function fail except
// the null C-string arguments named below.
//
// Stateless: all functions are static and reentrant, any thread may call any
// of them at any time. checkDnChain reads the caller's model records without
// locking; the caller keeps them alive and unchanged during the call.
//
// Validating a DN - read this before using REGEXP_FOR_3GPP_DN:
// REGEXP_FOR_3GPP_DN is the published regular expression of a well-formed DN.
// It nests repetitions (a value is "([^...]*(\\hh)*)*", inside "(...)*"), so
// backtracking engines - std::regex, PCRE and anything built on them - take
// time exponential in the length of the values: a valid DN still has its last
// value split in every possible way before the match succeeds, and a DN that
// fails late has all its values retried. With std::regex each further value
// character costs about three times as much, a 13-character leaf value takes most of a second and
// a realistic "...,NRCellDU=NR01gNodeBRadio00087-1" does not finish; PCRE
// (Poco::RegularExpression) hits its match limit near 20 characters and
// throws. Long inputs can also exhaust the stack of a recursive engine. Use
// isValidDn() instead: it accepts exactly the same strings in one linear pass
// (about 1 ns per byte). The expression is kept unchanged for compatibility
// only.
#ifndef ZEL_DN_UTIL_H
#define ZEL_DN_UTIL_H

#include <string>

#include <zel/ZelExport.h>
#include <zel/ZelOamSpiMoc.h>

namespace Zel {

class ZEL_API DnUtil {
 public:
  // The regular expression of a well-formed DN, 214 characters. Accepts the
  // empty string and white space only; otherwise one or more RDNs separated by
  // "," with optional white space (\s) at both ends and around every "," and
  // "=". Attribute: [A-Z] then characters other than , = + < > # ; " . with an
  // optional "." key name starting [a-z*]; value: characters other than
  // , = + < > # ; " (hex pairs "\hh" included). Never applied by the library.
  // Exponential with backtracking engines: see the note at the top; prefer
  // isValidDn().
  static const char* REGEXP_FOR_3GPP_DN;

  // True when dn is in the language of REGEXP_FOR_3GPP_DN, decided in one
  // linear pass without a regular-expression engine. White space is the ASCII
  // space class (space, \t, \n, \v, \f, \r); bytes of 128 and above are
  // ordinary characters. Never throws.
  //   ""                                       -> true
  //   "  "                                     -> true
  //   "ManagedElement=1, Equipment.serial = A\2C" -> true
  //   "A="                                     -> true
  //   "a=1", "A=1,", "A=1+B=2", "/A=1"         -> false
  static bool isValidDn(const std::string& dn);

  // Takes the leaf RDN off dn and puts its class name into leafClass: dn is cut
  // at its last "," (or emptied when it has none); the RDN is cut at its first
  // "=", trimmed, then cut at its first "." - so white space before a "."
  // stays. Returns false, changing nothing, when dn has fewer than 3
  // characters; otherwise true, even when leafClass comes out empty.
  //   "ManagedElement=1,Equipment.serial=2" -> dn "ManagedElement=1", "Equipment"
  //   "ManagedElement=1, Equipment =3"      -> leafClass "Equipment"
  //   "X=1,Equipment .k=3"                  -> leafClass "Equipment " (blank kept)
  //   "A=1" -> dn "", "A";   "AB" -> false
  static bool popLeafClass(std::string& dn, std::string& leafClass);

  // Class name of the leaf RDN: its text up to the first "=", cut at the first
  // "." and then trimmed (the opposite order to popLeafClass). "" when dn has
  // 2 characters or fewer or the leaf RDN has no "=".
  //   "X=1,Equipment .k=3" -> "Equipment";   "A=1,B" -> "";   "AB" -> ""
  static std::string getClass(const std::string& dn);

  // Everything after the last "=", untrimmed; the whole of dn when it has none.
  //   "A=1,B=2" -> "2";   "abc" -> "abc";   "A=" -> ""
  static std::string getId(const std::string& dn);

  // dn without its leaf RDN: cut at the last ","; "" for a one-RDN DN.
  //   "A=1,B=2,C=3" -> "A=1,B=2";   "A=1" -> ""
  static std::string getParentDn(const std::string& dn);

  // Builds "<parentDn>,<RDN>" (just "<RDN>" when parentDn is null or empty)
  // into dn, where RDN is "<className>=<keyValue>" when keyAttributeName equals
  // "<className>id" or "id" ignoring ASCII case, and
  // "<className>.<keyAttributeName>=<keyValue>" otherwise. Nothing is checked
  // or escaped. Always returns true. dn is only written when the call succeeds.
  //   (null, "Equipment", "equipmentId", "1")          -> "Equipment=1"
  //   ("ManagedElement=1", "Equipment", "ID", "1")     -> "ManagedElement=1,Equipment=1"
  //   ("ManagedElement=1", "Equipment", "serial", "1") -> "ManagedElement=1,Equipment.serial=1"
  // A null className, keyAttributeName or keyValue throws std::logic_error
  // "basic_string::_M_construct null not valid"; a result longer than the
  // maximum string length throws std::length_error.
  static bool getDn(const char* parentDn, const char* className, const char* keyAttributeName,
                    const char* keyValue, std::string& dn);

  // Checks that dn may name the parent of an instance of moc: the classes of
  // dn's RDNs, read leaf first, must follow a chain of permitted parents from
  // moc up to a root class. Returns
  //   0  the chain matches (also when dn has further RDNs above the model's
  //      root class: reaching a root class ends the check with success);
  //   1  a class of dn is not a permitted parent, or moc is a root class and
  //      dn is not empty;
  //   2  dn or moc is null, or dn runs out (fewer than 3 characters left)
  //      before a root class is reached.
  // Class names are compared exactly. Never throws.
  static int checkDnChain(const char* dn, const ZelOamSpiMoc* moc);

  // name up to its first "." (all of it when it has none), untrimmed.
  //   "Equipment.serial" -> "Equipment";   "Equipment" -> "Equipment"
  // A null name throws std::logic_error "basic_string::_M_construct null not valid".
  static std::string getClassName(const char* name);
};

}  // namespace Zel

#endif  // ZEL_DN_UTIL_H

// XPathUtil.h - building and splitting XPath-like instance paths.
//
// An instance path names a managed object by steps separated by "/", each
// step "[prefix:]Type" optionally followed by one key predicate
// "[keyName=keyValue]":  "/ns:Node[id=1]/Port[name=eth0]". The functions cut
// the text at "/", "[", "]" and "=" as they stand: no quoting, no escaping, no
// nesting; namespace prefixes are kept as part of the type name and quotes
// around a key value are kept as part of the value. Trimming removes ASCII
// white space (space, \t, \n, \v, \f, \r) only.
//
// Malformed paths give empty or partial strings as documented per function;
// nothing here logs or throws anything of its own. Stateless: all functions
// are static and reentrant, any thread may call any of them at any time.
#ifndef ZEL_XPATH_UTIL_H
#define ZEL_XPATH_UTIL_H

#include <string>

#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API XPathUtil {
 public:
  // Type name of the last step: the text after the last "/", cut before its
  // first "[", trimmed. "" when path is empty or ends in "/".
  //   "/a:T[k=1]/U[x=2]" -> "U";   "/a:T[k=1]" -> "a:T";   "T" -> "T"
  //   "/ U [x=1]" -> "U";          "/a/" -> "";            "" -> ""
  static std::string getTypeName(const std::string& path);

  // Puts getTypeName(path) into typeName and cuts path at its last "/" (the
  // "/" goes; a path without "/" becomes ""). The path is shortened in any
  // case; returns true when typeName is non-empty.
  //   "/A[k=1]/B[k=2]" -> path "/A[k=1]", "B", true
  //   "B"              -> path "", "B", true
  //   "/A/"            -> path "/A", "", false
  static bool popTypeName(std::string& path, std::string& typeName);

  // Trimmed text after the last "=" of the whole path, up to the last "]"
  // when that lies after the "=", else up to the end. "" when path has no
  // "=". The "=" need not be in the last step.
  //   "/A[k=1]/B[n= 7 ]" -> "7";   "/A[k='x']" -> "'x'";
  //   "/A[k=1]/B"        -> "1";   "/A"        -> ""
  static std::string getKeyValue(const std::string& path);

  // The text before the last "/"; "" when path has none.
  //   "/A[k=1]/B[k=2]" -> "/A[k=1]";   "/T[k=1]" -> "";   "A" -> ""
  static std::string getParentInstance(const std::string& path);

  // Appends the step "[prefix:]typeName[keyName=keyValue]" to a path. When
  // parentInstance is non-empty, instance is first set to parentInstance and
  // "/"; when it is empty, instance is NOT cleared and the step is appended to
  // what it already holds (pass an empty instance for a fresh path). The
  // predicate is left out when keyName or keyValue is empty. No leading "/"
  // is ever added. Returns false, leaving instance unchanged, when typeName is
  // empty; otherwise true.
  //   ("ns", "/X[id=1]", "T", "id", "2"), instance ""    -> "/X[id=1]/ns:T[id=2]"
  //   ("ns", "/X[id=1]", "T", "id", ""),  instance ""    -> "/X[id=1]/ns:T"
  //   ("ns", "",         "T", "id", "2"), instance "old" -> "oldns:T[id=2]"
  // A result longer than the maximum string length throws std::length_error,
  // leaving instance unchanged.
  static bool getInstance(const std::string& prefix, const std::string& parentInstance,
                          const std::string& typeName, const std::string& keyName,
                          const std::string& keyValue, std::string& instance);
};

}  // namespace Zel

#endif  // ZEL_XPATH_UTIL_H

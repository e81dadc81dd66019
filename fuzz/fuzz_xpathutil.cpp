// Fuzzes every XPathUtil function on arbitrary text and checks each result
// against a plain restatement of the function's documented rule.
#include <stdexcept>
#include <string>

#include "FuzzSupport.h"
#include <zel/XPathUtil.h>

namespace {

using Zel::XPathUtil;
using ZelFuzz::trimmed;

const size_t npos = std::string::npos;

std::string refGetTypeName(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (path.empty() || (slash != npos && slash == path.size() - 1)) return "";
  std::string step = slash == npos ? path : path.substr(slash + 1);
  const size_t bracket = step.find('[');
  if (bracket != npos) step.erase(bracket);
  return trimmed(step);
}

std::string refGetKeyValue(const std::string& path) {
  const size_t equals = path.rfind('=');
  if (equals == npos) return "";
  const size_t bracket = path.rfind(']');
  const size_t end = bracket == npos || bracket < equals ? path.size() : bracket;
  return trimmed(path.substr(equals + 1, end - equals - 1));
}

std::string refGetParentInstance(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == npos ? std::string() : path.substr(0, slash);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);

  const std::string typeName = XPathUtil::getTypeName(path);
  FUZZ_CHECK(typeName == refGetTypeName(path), "getTypeName");
  {
    std::string shortened = path;
    std::string popped = "previous";
    const bool nonEmpty = XPathUtil::popTypeName(shortened, popped);
    FUZZ_CHECK(popped == typeName, "popTypeName type name");
    FUZZ_CHECK(nonEmpty == !typeName.empty(), "popTypeName result");
    FUZZ_CHECK(shortened == refGetParentInstance(path), "popTypeName shortens at the last /");
  }
  FUZZ_CHECK(XPathUtil::getKeyValue(path) == refGetKeyValue(path), "getKeyValue");
  FUZZ_CHECK(XPathUtil::getParentInstance(path) == refGetParentInstance(path), "getParentInstance");

  // Building: the input split at NUL bytes into the five parts and the
  // instance's previous content.
  ZelFuzz::Reader reader(data, size);
  const std::string prefix = reader.until('\0');
  const std::string parent = reader.until('\0');
  const std::string type = reader.until('\0');
  const std::string keyName = reader.until('\0');
  const std::string keyValue = reader.until('\0');
  const std::string previous = reader.rest();
  std::string instance = previous;
  const bool built = XPathUtil::getInstance(prefix, parent, type, keyName, keyValue, instance);
  if (type.empty()) {
    FUZZ_CHECK(!built && instance == previous, "empty type name leaves the instance alone");
  } else {
    std::string expected = parent.empty() ? previous : parent + "/";
    expected += prefix.empty() ? type : prefix + ":" + type;
    if (!keyName.empty() && !keyValue.empty()) expected += "[" + keyName + "=" + keyValue + "]";
    FUZZ_CHECK(built && instance == expected, "getInstance text");
  }
  return 0;
}

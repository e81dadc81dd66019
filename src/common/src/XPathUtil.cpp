// XPathUtil.cpp - XPath-like instance path utilities.
#include <zel/XPathUtil.h>

#include <Poco/String.h>

#include <string>

namespace Zel {

std::string XPathUtil::getTypeName(const std::string& path) {
  if (path.empty()) return std::string();
  const std::size_t slash = path.rfind('/');
  if (slash == path.size() - 1) return std::string();
  std::string step = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::size_t bracket = step.find('[');
  if (bracket != std::string::npos) step.erase(bracket);
  Poco::trimInPlace(step);
  return step;
}

bool XPathUtil::popTypeName(std::string& path, std::string& typeName) {
  std::string type = getTypeName(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos)
    path.clear();
  else
    path.erase(slash);
  typeName.swap(type);
  return !typeName.empty();
}

std::string XPathUtil::getKeyValue(const std::string& path) {
  const std::size_t equals = path.rfind('=');
  if (equals == std::string::npos) return std::string();
  const std::size_t bracket = path.rfind(']');
  const std::size_t end = (bracket == std::string::npos || bracket < equals) ? path.size() : bracket;
  std::string value = path.substr(equals + 1, end - equals - 1);
  Poco::trimInPlace(value);
  return value;
}

std::string XPathUtil::getParentInstance(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return path.substr(0, slash);
}

bool XPathUtil::getInstance(const std::string& prefix, const std::string& parentInstance,
                            const std::string& typeName, const std::string& keyName,
                            const std::string& keyValue, std::string& instance) {
  if (typeName.empty()) return false;
  // Built aside and moved in at the end: the arguments may refer to instance
  // itself, and a throwing append leaves instance as it was.
  std::string result;
  if (!parentInstance.empty()) {
    result.append(parentInstance);
    result.push_back('/');
  } else {
    // Deliberately not cleared: the step is appended to what instance holds.
    result = instance;
  }
  if (!prefix.empty()) {
    result.append(prefix);
    result.push_back(':');
  }
  result.append(typeName);
  if (!keyName.empty() && !keyValue.empty()) {
    result.push_back('[');
    result.append(keyName);
    result.push_back('=');
    result.append(keyValue);
    result.push_back(']');
  }
  instance = std::move(result);
  return true;
}

}  // namespace Zel

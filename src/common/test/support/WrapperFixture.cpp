#include "support/WrapperFixture.h"

#include <cstdlib>
#include <mutex>

namespace ZelTest {

namespace {
const char* const kVariables[] = {"ZEL_LOGGING_FNAME", "ZEL_LOGGING_LEVEL", "ZEL_LOGGING_FMAXSIZE",
                                  "ZEL_LOGGING_FMAXCOUNT", "TAV_ENV", "ZEL_LOGGING_CRASH_FLUSH"};

std::vector<Zel::LoggingWrapper*>& registry() {
  static std::vector<Zel::LoggingWrapper*>* wrappers = new std::vector<Zel::LoggingWrapper*>();
  return *wrappers;
}
std::mutex registryMutex;
}  // namespace

Zel::LoggingWrapper* makeWrapper(const std::string& dir, const EnvList& env) {
  const char* oldTmp = std::getenv("TMPDIR");
  const std::string savedTmp = oldTmp != nullptr ? oldTmp : "";
  for (const char* name : kVariables) unsetenv(name);
  setenv("TMPDIR", dir.c_str(), 1);
  for (const auto& var : env) setenv(var.first.c_str(), var.second.c_str(), 1);
  Zel::LoggingWrapper* wrapper = new Zel::LoggingWrapper();
  for (const auto& var : env) unsetenv(var.first.c_str());
  if (oldTmp != nullptr) setenv("TMPDIR", savedTmp.c_str(), 1);
  std::lock_guard<std::mutex> guard(registryMutex);
  registry().push_back(wrapper);
  return wrapper;
}

void closeWrapperFile(Zel::LoggingWrapper* wrapper) {
  Zel::LoggingWrapper::_lock->lock();
  wrapper->close_log_file();
  Zel::LoggingWrapper::_lock->unlock();
}

}  // namespace ZelTest

// Compiled with -DZel=ZelBaseline against the baseline commit's headers.
#include "BaselineLogging.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LoggingWrapper.h"

namespace ZelBench {

void* baselineMakeWrapper(const char* dir) {
  const char* names[] = {"TMPDIR", "ZEL_LOGGING_FNAME", "ZEL_LOGGING_LEVEL", "ZEL_LOGGING_FMAXSIZE",
                         "ZEL_LOGGING_FMAXCOUNT", "TAV_ENV"};
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> saved;
  for (const char* name : names) {
    const char* value = std::getenv(name);
    saved.emplace_back(name, value != nullptr ? std::make_unique<std::string>(value) : nullptr);
    unsetenv(name);
  }
  setenv("TMPDIR", dir, 1);
  ZelBaseline::LoggingWrapper* wrapper = new ZelBaseline::LoggingWrapper();
  for (const auto& entry : saved) {
    if (entry.second) {
      setenv(entry.first.c_str(), entry.second->c_str(), 1);
    } else {
      unsetenv(entry.first.c_str());
    }
  }
  return wrapper;
}

void baselineLogRecord(void* wrapper, int error, const char* target) {
  static_cast<ZelBaseline::LoggingWrapper*>(wrapper)->log_printf("signal", 3, 1,
                                                                  "Failed to write signal. Errno %d on %s", error,
                                                                  target);
}

void baselineClose(void* wrapper) { static_cast<ZelBaseline::LoggingWrapper*>(wrapper)->close(); }

}  // namespace ZelBench

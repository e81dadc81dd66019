// Compiled with -DZel=ZelBaseline against the baseline commit's headers.
#include "BaselineLogging.h"

#include "../LoggingEnvironment.h"
#include "LoggingWrapper.h"

namespace ZelBench {

void* baselineMakeWrapper(const char* dir) {
  LoggingEnvironment environment(dir);
  return new ZelBaseline::LoggingWrapper();
}

void baselineLogRecord(void* wrapper, int error, const char* target) {
  static_cast<ZelBaseline::LoggingWrapper*>(wrapper)->log_printf("signal", 3, 1,
                                                                  "Failed to write signal. Errno %d on %s", error,
                                                                  target);
}

void baselineClose(void* wrapper) { static_cast<ZelBaseline::LoggingWrapper*>(wrapper)->close(); }

}  // namespace ZelBench

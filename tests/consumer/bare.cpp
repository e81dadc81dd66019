// bare.cpp - a component written against bare header names, as older code
// of the framework is. It builds only through the transitional include
// directory (Zel::common_bare_includes, or pkg-config's bare_include_cflags).
// Prints the library version and "bare: ok".
#include <cstdio>
#include <cstring>

#include "LoggingWrapper.h"
#include "Version.h"
#include "ZelReturn.h"

int main() {
  if (std::strcmp(Zel::ZelReturn::strerror(ZelInvalidArgument), "ZelInvalidArgument") != 0) return 1;
  if (Zel::libraryVersionNumber() != ZEL_COMMON_VERSION) return 1;
  ZEL_LOG_INFO("bare record %d", 3);
  Zel::LoggingWrapper::getInstance()->close();
  std::printf("bare: ok %s\n", Zel::libraryVersion());
  return 0;
}

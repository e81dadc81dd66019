// macros.cpp - the record macros with <zel/LoggingWrapper.h> as the only
// header of the library, and <zel/Version.h> against the library loaded.
// Prints "macros: ok VERSION" (the headers' version) when the library loaded
// is the one of the headers.
#include <cstdio>
#include <cstring>

#include <zel/LoggingWrapper.h>

#ifndef ZEL_LOG_ERROR
#error "<zel/LoggingWrapper.h> does not define the record macros"
#endif

#include <zel/Version.h>

int main() {
  ZEL_LOG_ERROR("macro error %d", 1);
  ZEL_LOG_WARNING("macro warning");
  ZEL_DEBUG("macro debug %s", "filtered");
  Zel::LoggingWrapper::getInstance()->close();
  if (std::strcmp(Zel::libraryVersion(), ZEL_COMMON_VERSION_STRING) != 0 ||
      Zel::libraryVersionNumber() != ZEL_COMMON_VERSION ||
      ZEL_COMMON_VERSION != ZEL_COMMON_VERSION_MAJOR * 1000000 + ZEL_COMMON_VERSION_MINOR * 1000 + ZEL_COMMON_VERSION_PATCH) {
    std::fprintf(stderr, "macros: library %s, headers %s\n", Zel::libraryVersion(), ZEL_COMMON_VERSION_STRING);
    return 1;
  }
  std::printf("macros: ok %s\n", ZEL_COMMON_VERSION_STRING);
  return 0;
}

// logging.cpp - write records through the logging wrapper and watch the
// local file rotate.
//
//   TMPDIR=/some/dir ZEL_LOGGING_FMAXSIZE=2048 ZEL_LOGGING_FMAXCOUNT=3 ./example_logging
//
// The wrapper reads its settings once, from the environment, when it is first
// used: the file is $TMPDIR/zel.log, rotated into zel.log.1, zel.log.2, ...
// when it grows past ZEL_LOGGING_FMAXSIZE bytes, keeping
// ZEL_LOGGING_FMAXCOUNT numbered files.
#include <cstdio>

#include <zel/LoggingWrapper.h>

int main() {
  Zel::LoggingWrapper* log = Zel::LoggingWrapper::getInstance();
  std::printf("logging to %s (level %u)\n", log->get_fname().c_str(), log->get_level());

  // Callers test the filter first, so that a dropped record costs nothing.
  for (int i = 0; i < 60; ++i) {
    if (log->isSaLoggingAllowed(1u << 3, 3))
      log->log_printf("main", 3, 1, "Failed to write signal. Errno %d on record %d", 32, i);
    if (log->isSaLoggingAllowed(1u << 6, 6)) log->log_printf("main", 6, 1, "record %d written", i);
  }
  // A debug trace goes to the same file while no trace interface is set.
  if (log->isDebugLoggingAllowed(8))
    log->trace_printf("examples/logging.cpp", "main", 30, 8, 0, "debug traces pass at level %u", log->get_level());
  // Facility 13: a raw record, written exactly as formatted.
  log->log_printf("main", 6, 13, "---- raw record, no stamp or tag ----");
  log->close();
  return 0;
}

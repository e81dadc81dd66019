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

// One macro per record: the level filter, then log_printf with this
// function's name ("writeRecords"), then the version 2 trace call with this
// file, function and line (dropped while no trace interface is set).
void writeRecords() {
  for (int i = 0; i < 60; ++i) {
    ZEL_LOG_ERROR("Failed to write signal. Errno %d on record %d", 32, i);
    ZEL_LOG_INFO("record %d written", i);
  }
  // A debug trace goes to the same file while no trace interface is set; the
  // debug filter lets it through at level 8 (ZEL_LOGGING_LEVEL=8).
  ZEL_DEBUG("debug traces pass at level %u", Zel::LoggingWrapper::getInstance()->get_level());
}

int main() {
  Zel::LoggingWrapper* log = Zel::LoggingWrapper::getInstance();
  std::printf("logging to %s (level %u)\n", log->get_fname().c_str(), log->get_level());
  writeRecords();

  // The same two steps by hand, for callers that choose the function name.
  if (log->isSaLoggingAllowed(Zel::logLevelMask(Zel::LogLevel::Warning), Zel::LogLevel::Warning))
    log->log_printf("main", Zel::LogLevel::Warning, 1, "%d records written", 120);
  log->trace_v2_printf(Zel::Trace::Common, Zel::LogLevel::Warning, __FILE__, "main", __LINE__, "%d records written",
                       120);
  // Facility 13: a raw record, written exactly as formatted.
  log->log_printf("main", Zel::LogLevel::Info, 13, "---- raw record, no stamp or tag ----");
  log->close();
  return 0;
}

// BaselineLogging.h - the logging wrapper as it was before the shared log
// file (records in a stdio buffer, no cross-process coordination), built
// from that commit's sources into the benchmark under a namespace of its
// own, so that the current wrapper and its predecessor are measured side by
// side in one run.
#ifndef ZEL_BENCH_BASELINE_LOGGING_H
#define ZEL_BENCH_BASELINE_LOGGING_H

namespace ZelBench {

// A baseline wrapper with default settings whose log directory is `dir`.
void* baselineMakeWrapper(const char* dir);
// log_printf of the bench's record: level 3, function "signal",
// "Failed to write signal. Errno <error> on <target>".
void baselineLogRecord(void* wrapper, int error, const char* target);
// close() of the wrapper.
void baselineClose(void* wrapper);

}  // namespace ZelBench

#endif  // ZEL_BENCH_BASELINE_LOGGING_H

// ZelMwSpiTrace.h - the framework's trace interface records, versions 1 and 2.
//
// Version 1 receives finished text records; version 2 receives the format and
// the caller's argument list unformatted, on a subsystem handle obtained from
// registerSubsystem. Both records begin with ZelMgmtSpiInterface_1 whose
// interfaceVersion reads "1" or "2". They belong to the framework; the library
// only calls through them.
#ifndef ZEL_MW_SPI_TRACE_H
#define ZEL_MW_SPI_TRACE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include <zel/ZelMgmtSpiInterface.h>
#include <zel/ZelReturn.h>

extern "C" {

// Opaque handle of a registered trace subsystem, issued by the version 2 interface.
typedef uint64_t ZelMwSpiTraceSubsystemHandle_2T;
// Trace level of a version 2 record; the library uses 3 (error) and 14 (debug).
typedef uint32_t ZelMwSpiTraceLevelT;

// Version "1": text records. Results are not looked at.
struct ZelMwSpiTrace_1 {
  ZelMgmtSpiInterface_1 header;  // names the interface; version "1"
  // Writes a trace text of the given kind.
  ZelReturnT (*traceWrite)(uint32_t kind, const char* text);
  // Writes a trace text with a function name (the library passes kind 9).
  ZelReturnT (*traceWriteFunction)(uint32_t kind, const char* function, const char* text);
  // Writes a trace text with a function name and a value (kind 10, value 0).
  ZelReturnT (*traceWriteFunctionValue)(uint32_t kind, const char* function, uint32_t value, const char* text);
};

// Version "2": subsystems and unformatted records. Note vtrace's argument
// order: the line comes before the function name.
struct ZelMwSpiTrace_2 {
  ZelMgmtSpiInterface_1 header;  // names the interface; version "2"
  // Registers the named subsystem and stores its handle; non-zero is a failure.
  ZelReturnT (*registerSubsystem)(const char* name, ZelMwSpiTraceSubsystemHandle_2T* handle);
  // Writes one record from a format and the caller's unformatted arguments.
  void (*vtrace)(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level, const char* file, uint32_t line,
                 const char* function, const char* format, va_list args);
};

}  // extern "C"

static_assert(sizeof(ZelMwSpiTraceSubsystemHandle_2T) == 8, "handle is 64 bits");
static_assert(offsetof(ZelMwSpiTrace_1, traceWrite) == 24, "trace v1 layout");
static_assert(offsetof(ZelMwSpiTrace_1, traceWriteFunction) == 32, "trace v1 layout");
static_assert(offsetof(ZelMwSpiTrace_1, traceWriteFunctionValue) == 40, "trace v1 layout");
static_assert(offsetof(ZelMwSpiTrace_2, registerSubsystem) == 24, "trace v2 layout");
static_assert(offsetof(ZelMwSpiTrace_2, vtrace) == 32, "trace v2 layout");

#endif  // ZEL_MW_SPI_TRACE_H

// Fakes.h - recording fakes of the framework's log and trace interfaces.
//
// The framework's records hold plain function pointers without a context
// argument, so each fake keeps its calls in static storage: reset() before
// use, then read calls(). Every fake's function may be given a hook that runs
// inside the call (e.g. to log again from inside the interface).
#ifndef ZEL_TEST_FAKES_H
#define ZEL_TEST_FAKES_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <zel/ZelMgmtSpiInterface.h>
#include <zel/ZelMwSpiTrace.h>

namespace ZelTest {

// A log interface (ZelMgmtSpiLog_1).
struct FakeLogSpi {
  struct Call {
    uint32_t one;
    uint32_t level;
    uint32_t facility;
    std::string text;
  };
  static void reset(int32_t result = 0);
  static std::vector<Call> calls();
  static ZelMgmtSpiInterface_1* spi();
  static std::function<void()> hook;  // runs inside logWrite
  static int32_t result;
};

// A version "1" trace interface (ZelMwSpiTrace_1).
struct FakeTraceV1 {
  struct Call {
    int slot;  // 1 traceWrite, 2 traceWriteFunction, 3 traceWriteFunctionValue
    uint32_t kind;
    std::string function;
    uint32_t value;
    std::string text;
  };
  static void reset();
  static std::vector<Call> calls();
  static ZelMgmtSpiInterface_1* spi();
  static std::function<void()> hook;  // runs inside every slot
};

// A version "2" trace interface (ZelMwSpiTrace_2); the version text can be
// changed to test unsupported versions.
struct FakeTraceV2 {
  struct Registration {
    std::string name;
    ZelMwSpiTraceSubsystemHandle_2T* handle;
  };
  struct Call {
    ZelMwSpiTraceSubsystemHandle_2T handle;
    ZelMwSpiTraceLevelT level;
    std::string file;
    uint32_t line;
    std::string function;
    std::string format;
    std::string text;  // format applied to the arguments
  };
  // registerResult: what registerSubsystem returns; on success it stores
  // 1000 + the call's position into the handle.
  static void reset(ZelReturnT registerResult = ZelOk);
  static std::vector<Registration> registrations();
  static std::vector<Call> calls();
  static ZelMgmtSpiInterface_1* spi();
  static std::function<void()> hook;  // runs inside vtrace
};

// An interface header with any version text, for the unsupported case.
ZelMgmtSpiInterface_1* traceSpiWithVersion(const char* version);

}  // namespace ZelTest

#endif  // ZEL_TEST_FAKES_H

// ThreadContextFakes.h - recording fakes of the framework's interface portal
// and thread context interface.
//
// The records hold plain function pointers without a context argument, so the
// fakes keep their state in static storage: reset() before use, configure the
// message lists and the result of each step, run the code under test, then
// read calls() - one text per call, in order:
//   "getMessages(0)"  "getMessages(1)"  "releaseHandle(log)"
//   "releaseHandle(nbi)"  "clearMessages(0)"  "clearMessages(1)"
//   "unused(4)" ... for a call of a slot the library must not use
//   "getInterface" for a lookup through FakePortal
// (a handle the fake never issued reads "releaseHandle(<number>)").
// note(text) appends a text of the test's own to the same sequence (e.g. from
// a trace fake's hook) so that interleavings can be asserted.
//
// getMessages hands out handle LOG_HANDLE for kind 0 and NBI_HANDLE for kind 1
// and an array of the configured texts ended by a null pointer; the array is
// overwritten with poison texts when its handle is released, so reading it
// afterwards shows up in the traces.
#ifndef ZEL_TEST_THREAD_CONTEXT_FAKES_H
#define ZEL_TEST_THREAD_CONTEXT_FAKES_H

#include <string>
#include <vector>

#include <zel/ZelMgmtSpiThreadContext.h>

namespace ZelTest {

struct FakeThreadContext {
  // The steps whose results can be configured.
  enum Step { GetLog, GetNbi, ReleaseLog, ReleaseNbi, ClearLog, ClearNbi, StepCount };

  static constexpr ZelMgmtSpiThreadContextHandle_2T LOG_HANDLE = 0x1000;
  static constexpr ZelMgmtSpiThreadContextHandle_2T NBI_HANDLE = 0x2000;

  // Empty lists, every step succeeds, no calls recorded.
  static void reset();
  // The texts handed out for kind 0 / kind 1.
  static void setMessages(const std::vector<std::string>& log, const std::vector<std::string>& nbi);
  // What a step returns; a failing getMessages writes neither output.
  static void setResult(Step step, ZelReturnT result);

  static std::vector<std::string> calls();
  static void note(const std::string& text);

  // Handles handed out and not released yet, and whether a list was cleared.
  static std::vector<ZelMgmtSpiThreadContextHandle_2T> outstandingHandles();
  static bool cleared(uint32_t kind);

  static ZelMgmtSpiThreadContext_2* spi();
};

struct FakePortal {
  // One lookup as the portal saw it.
  struct Lookup {
    std::string componentName;
    std::string interfaceName;
    std::string interfaceVersion;
    bool resultStartedNull;  // *result was null when the call came in
  };
  // result: what getInterface returns; on ZelOk it stores the found
  // interface into *result, on failure it leaves *result alone. The found
  // interface is the FakeThreadContext record until setFound() changes it.
  static void reset(ZelReturnT result = ZelOk);
  static void setFound(ZelMgmtSpiInterface_1* found);
  static std::vector<Lookup> lookups();
  static ZelMgmtSpiInterfacePortal_3* spi();
};

}  // namespace ZelTest

#endif  // ZEL_TEST_THREAD_CONTEXT_FAKES_H

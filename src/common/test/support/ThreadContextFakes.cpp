#include "support/ThreadContextFakes.h"

#include <algorithm>
#include <mutex>

namespace ZelTest {

namespace {

// Stands in for every entry of an array whose handle was released.
const char* const RELEASED_TEXT = "<read after release>";

struct State {
  std::vector<std::string> calls;
  std::vector<std::string> texts[2];
  std::vector<const char*> arrays[2];
  ZelReturnT results[FakeThreadContext::StepCount] = {};
  std::vector<ZelMgmtSpiThreadContextHandle_2T> outstanding;
  bool cleared[2] = {false, false};

  ZelReturnT portalResult = ZelOk;
  ZelMgmtSpiInterface_1* portalFound = nullptr;
  std::vector<FakePortal::Lookup> lookups;
};

std::mutex gMutex;
State gState;

ZelMgmtSpiThreadContextHandle_2T handleOf(uint32_t kind) {
  return kind == 0 ? FakeThreadContext::LOG_HANDLE : FakeThreadContext::NBI_HANDLE;
}

std::string handleName(ZelMgmtSpiThreadContextHandle_2T handle) {
  if (handle == FakeThreadContext::LOG_HANDLE) return "log";
  if (handle == FakeThreadContext::NBI_HANDLE) return "nbi";
  return std::to_string(handle);
}

// Rebuilds the null-terminated array of one kind from its texts.
void buildArray(uint32_t kind) {
  gState.arrays[kind].clear();
  for (const std::string& text : gState.texts[kind]) gState.arrays[kind].push_back(text.c_str());
  gState.arrays[kind].push_back(nullptr);
}

ZelReturnT fakeGetMessages(uint32_t kind, ZelMgmtSpiThreadContextHandle_2T* handle, const char*** messages) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.push_back("getMessages(" + std::to_string(kind) + ")");
  if (kind > 1) return ZelInvalidArgument;
  const ZelReturnT result = gState.results[kind == 0 ? FakeThreadContext::GetLog : FakeThreadContext::GetNbi];
  if (result != ZelOk) return result;
  buildArray(kind);
  *handle = handleOf(kind);
  *messages = gState.arrays[kind].data();
  gState.outstanding.push_back(*handle);
  return ZelOk;
}

ZelReturnT fakeReleaseHandle(ZelMgmtSpiThreadContextHandle_2T handle) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.push_back("releaseHandle(" + handleName(handle) + ")");
  ZelReturnT result = ZelInvalidArgument;
  if (handle == FakeThreadContext::LOG_HANDLE) result = gState.results[FakeThreadContext::ReleaseLog];
  if (handle == FakeThreadContext::NBI_HANDLE) result = gState.results[FakeThreadContext::ReleaseNbi];
  if (result != ZelOk) return result;
  auto found = std::find(gState.outstanding.begin(), gState.outstanding.end(), handle);
  if (found == gState.outstanding.end()) return ZelInvalidArgument;
  gState.outstanding.erase(found);
  // The service may reuse the array now; make stale reads visible.
  std::vector<const char*>& array = gState.arrays[handle == FakeThreadContext::LOG_HANDLE ? 0 : 1];
  for (size_t i = 0; i + 1 < array.size(); ++i) array[i] = RELEASED_TEXT;
  return ZelOk;
}

ZelReturnT fakeClearMessages(uint32_t kind) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.push_back("clearMessages(" + std::to_string(kind) + ")");
  if (kind > 1) return ZelInvalidArgument;
  const ZelReturnT result = gState.results[kind == 0 ? FakeThreadContext::ClearLog : FakeThreadContext::ClearNbi];
  if (result != ZelOk) return result;
  gState.cleared[kind] = true;
  gState.texts[kind].clear();
  return ZelOk;
}

void recordUnused(int slot) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.push_back("unused(" + std::to_string(slot) + ")");
}
void fakeUnused4() { recordUnused(4); }
void fakeUnused5() { recordUnused(5); }
void fakeUnused6() { recordUnused(6); }
void fakeUnused8() { recordUnused(8); }

ZelMgmtSpiThreadContext_2 gThreadContext = {{"FakeComponent", "FakeThreadContext", "2"},
                                            fakeUnused4,
                                            fakeUnused5,
                                            fakeUnused6,
                                            fakeClearMessages,
                                            fakeUnused8,
                                            fakeGetMessages,
                                            fakeReleaseHandle};

std::string textOrEmpty(const char* text) { return text != nullptr ? text : "(null)"; }

ZelReturnT fakeGetInterface(ZelMgmtSpiInterface_1 id, ZelMgmtSpiInterface_1** result) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.lookups.push_back({textOrEmpty(id.componentName), textOrEmpty(id.interfaceName),
                            textOrEmpty(id.interfaceVersion), result != nullptr && *result == nullptr});
  gState.calls.push_back("getInterface");
  if (gState.portalResult == ZelOk && result != nullptr) *result = gState.portalFound;
  return gState.portalResult;
}

ZelMgmtSpiInterfacePortal_3 gPortal = {{"FakeComponent", "FakePortal", "3"}, fakeGetInterface};

}  // namespace

void FakeThreadContext::reset() {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.clear();
  for (uint32_t kind = 0; kind < 2; ++kind) {
    gState.texts[kind].clear();
    gState.arrays[kind].clear();
    gState.cleared[kind] = false;
  }
  for (ZelReturnT& result : gState.results) result = ZelOk;
  gState.outstanding.clear();
}

void FakeThreadContext::setMessages(const std::vector<std::string>& log, const std::vector<std::string>& nbi) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.texts[0] = log;
  gState.texts[1] = nbi;
}

void FakeThreadContext::setResult(Step step, ZelReturnT result) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.results[step] = result;
}

std::vector<std::string> FakeThreadContext::calls() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gState.calls;
}

void FakeThreadContext::note(const std::string& text) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.calls.push_back(text);
}

std::vector<ZelMgmtSpiThreadContextHandle_2T> FakeThreadContext::outstandingHandles() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gState.outstanding;
}

bool FakeThreadContext::cleared(uint32_t kind) {
  std::lock_guard<std::mutex> guard(gMutex);
  return kind < 2 && gState.cleared[kind];
}

ZelMgmtSpiThreadContext_2* FakeThreadContext::spi() { return &gThreadContext; }

void FakePortal::reset(ZelReturnT result) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.portalResult = result;
  gState.portalFound = &gThreadContext.header;
  gState.lookups.clear();
}

void FakePortal::setFound(ZelMgmtSpiInterface_1* found) {
  std::lock_guard<std::mutex> guard(gMutex);
  gState.portalFound = found;
}

std::vector<FakePortal::Lookup> FakePortal::lookups() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gState.lookups;
}

ZelMgmtSpiInterfacePortal_3* FakePortal::spi() { return &gPortal; }

}  // namespace ZelTest

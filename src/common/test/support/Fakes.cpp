#include "support/Fakes.h"

#include <cstdarg>
#include <cstdio>

namespace ZelTest {

namespace {
std::mutex gMutex;
std::vector<FakeLogSpi::Call> gLogCalls;
std::vector<FakeTraceV1::Call> gV1Calls;
std::vector<FakeTraceV2::Registration> gV2Registrations;
std::vector<FakeTraceV2::Call> gV2Calls;
ZelReturnT gRegisterResult = ZelOk;

int32_t fakeLogWrite(uint32_t one, uint32_t level, uint32_t facility, const char* text) {
  {
    std::lock_guard<std::mutex> guard(gMutex);
    gLogCalls.push_back({one, level, facility, text != nullptr ? text : "(null)"});
  }
  if (FakeLogSpi::hook) FakeLogSpi::hook();
  return FakeLogSpi::result;
}

void recordV1(int slot, uint32_t kind, const char* function, uint32_t value, const char* text) {
  {
    std::lock_guard<std::mutex> guard(gMutex);
    gV1Calls.push_back({slot, kind, function != nullptr ? function : "", value, text != nullptr ? text : ""});
  }
  if (FakeTraceV1::hook) FakeTraceV1::hook();
}
ZelReturnT v1Write(uint32_t kind, const char* text) {
  recordV1(1, kind, nullptr, 0, text);
  return ZelOk;
}
ZelReturnT v1WriteFunction(uint32_t kind, const char* function, const char* text) {
  recordV1(2, kind, function, 0, text);
  return ZelOk;
}
ZelReturnT v1WriteFunctionValue(uint32_t kind, const char* function, uint32_t value, const char* text) {
  recordV1(3, kind, function, value, text);
  return ZelOk;
}

ZelReturnT v2Register(const char* name, ZelMwSpiTraceSubsystemHandle_2T* handle) {
  std::lock_guard<std::mutex> guard(gMutex);
  gV2Registrations.push_back({name != nullptr ? name : "", handle});
  if (gRegisterResult == ZelOk && handle != nullptr) *handle = 1000 + gV2Registrations.size();
  return gRegisterResult;
}
void v2Trace(ZelMwSpiTraceSubsystemHandle_2T handle, ZelMwSpiTraceLevelT level, const char* file, uint32_t line,
             const char* function, const char* format, va_list args) {
  char text[4096];
  va_list copy;
  va_copy(copy, args);
  vsnprintf(text, sizeof(text), format, copy);
  va_end(copy);
  {
    std::lock_guard<std::mutex> guard(gMutex);
    gV2Calls.push_back({handle, level, file != nullptr ? file : "", line, function != nullptr ? function : "",
                        format != nullptr ? format : "", text});
  }
  if (FakeTraceV2::hook) FakeTraceV2::hook();
}

ZelMgmtSpiLog_1 gLogSpi = {{"FakeComponent", "FakeLog", "1"}, fakeLogWrite};
ZelMwSpiTrace_1 gV1Spi = {{"FakeComponent", "FakeTrace", "1"}, v1Write, v1WriteFunction, v1WriteFunctionValue};
ZelMwSpiTrace_2 gV2Spi = {{"FakeComponent", "FakeTrace", "2"}, v2Register, v2Trace};
ZelMwSpiTrace_2 gOtherVersionSpi = {{"FakeComponent", "FakeTrace", "3"}, v2Register, v2Trace};
}  // namespace

std::function<void()> FakeLogSpi::hook;
int32_t FakeLogSpi::result = 0;
std::function<void()> FakeTraceV1::hook;
std::function<void()> FakeTraceV2::hook;

void FakeLogSpi::reset(int32_t r) {
  std::lock_guard<std::mutex> guard(gMutex);
  gLogCalls.clear();
  result = r;
  hook = nullptr;
}
std::vector<FakeLogSpi::Call> FakeLogSpi::calls() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gLogCalls;
}
ZelMgmtSpiInterface_1* FakeLogSpi::spi() { return &gLogSpi.header; }

void FakeTraceV1::reset() {
  std::lock_guard<std::mutex> guard(gMutex);
  gV1Calls.clear();
  hook = nullptr;
}
std::vector<FakeTraceV1::Call> FakeTraceV1::calls() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gV1Calls;
}
ZelMgmtSpiInterface_1* FakeTraceV1::spi() { return &gV1Spi.header; }

void FakeTraceV2::reset(ZelReturnT registerResult) {
  std::lock_guard<std::mutex> guard(gMutex);
  gV2Registrations.clear();
  gV2Calls.clear();
  gRegisterResult = registerResult;
  hook = nullptr;
}
std::vector<FakeTraceV2::Registration> FakeTraceV2::registrations() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gV2Registrations;
}
std::vector<FakeTraceV2::Call> FakeTraceV2::calls() {
  std::lock_guard<std::mutex> guard(gMutex);
  return gV2Calls;
}
ZelMgmtSpiInterface_1* FakeTraceV2::spi() { return &gV2Spi.header; }

ZelMgmtSpiInterface_1* traceSpiWithVersion(const char* version) {
  gOtherVersionSpi.header.interfaceVersion = version;
  return &gOtherVersionSpi.header;
}

}  // namespace ZelTest

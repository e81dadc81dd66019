// FaultInjection.h - make chosen system calls fail on demand.
//
// The test executable that links FaultInjection.cpp is linked with
// -Wl,--wrap for each call below, so every reference to the call from the
// objects linked into it (the library's objects included) goes through a
// wrapper here. A wrapper passes the call on unchanged unless a fault is
// armed for it: then it skips `skip` calls, makes the next `times` calls fail
// with `error` (returning what the call returns on failure, errno set) and
// passes later calls on again.
//
// Threads: arming and counting use atomics; arm before the calls you target
// and read the counts after them.
#ifndef ZEL_TEST_FAULT_INJECTION_H
#define ZEL_TEST_FAULT_INJECTION_H

#include <functional>

namespace ZelFault {

enum class Call { Rename, Unlink, Opendir, Fstat, Write, Count_ };

// Arms a fault for `call`. For Call::Write only writes to descriptor `fd`
// fail (so the test's own output is never hit); fd is ignored otherwise.
void arm(Call call, int error, int times = 1, int skip = 0, int fd = -1);
// Runs `action` once, at the next call of `call`, before the call itself
// goes on (or fails): an outside event placed at an exact point of the code
// under test. Not thread-safe: set it while no other thread makes the call.
void before(Call call, std::function<void()> action);
// Disarms every fault and zeroes the counts.
void reset();
// Calls of `call` seen since the last reset.
int calls(Call call);
// Failures injected into `call` since the last reset.
int injected(Call call);
// Failures injected since the process started, all calls together.
long totalInjected();

}  // namespace ZelFault

#endif  // ZEL_TEST_FAULT_INJECTION_H

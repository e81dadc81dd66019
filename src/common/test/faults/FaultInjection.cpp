// Wrappers of the system calls named in FaultInjection.h. Each __wrap_X is
// what the code calls for X once the executable is linked with --wrap=X;
// __real_X is the original.
#include "faults/FaultInjection.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

extern "C" {
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);
DIR* __real_opendir(const char* path);
int __real_fstat(int fd, struct stat* st);
int __real_fstat64(int fd, struct stat64* st);
ssize_t __real_write(int fd, const void* data, size_t size);
}

namespace ZelFault {

namespace {

struct Fault {
  std::atomic<int> skip{0};
  std::atomic<int> times{0};
  std::atomic<int> error{0};
  std::atomic<int> fd{-1};
  std::atomic<int> calls{0};
  std::atomic<int> injected{0};
};

Fault gFaults[static_cast<int>(Call::Count_)];
std::function<void()> gBefore[static_cast<int>(Call::Count_)];
std::atomic<long> gTotalInjected{0};

Fault& fault(Call call) { return gFaults[static_cast<int>(call)]; }

// Counts the call and decides whether it fails; sets errno when it does.
bool shouldFail(Call call, int fd = -1) {
  Fault& f = fault(call);
  f.calls.fetch_add(1);
  std::function<void()>& action = gBefore[static_cast<int>(call)];
  if (action) {
    std::function<void()> once;
    once.swap(action);
    once();
  }
  if (f.times.load() <= 0) return false;
  if (call == Call::Write && fd != f.fd.load()) return false;
  int skip = f.skip.load();
  while (skip > 0) {
    if (f.skip.compare_exchange_weak(skip, skip - 1)) return false;
  }
  int times = f.times.load();
  while (times > 0) {
    if (f.times.compare_exchange_weak(times, times - 1)) {
      f.injected.fetch_add(1);
      gTotalInjected.fetch_add(1);
      errno = f.error.load();
      return true;
    }
  }
  return false;
}

}  // namespace

void arm(Call call, int error, int times, int skip, int fd) {
  Fault& f = fault(call);
  f.error.store(error);
  f.fd.store(fd);
  f.skip.store(skip);
  f.times.store(times);
}

void before(Call call, std::function<void()> action) { gBefore[static_cast<int>(call)] = std::move(action); }

void reset() {
  for (std::function<void()>& action : gBefore) action = nullptr;
  for (Fault& f : gFaults) {
    f.times.store(0);
    f.skip.store(0);
    f.fd.store(-1);
    f.calls.store(0);
    f.injected.store(0);
  }
}

int calls(Call call) { return fault(call).calls.load(); }
int injected(Call call) { return fault(call).injected.load(); }
long totalInjected() { return gTotalInjected.load(); }

}  // namespace ZelFault

using ZelFault::Call;

extern "C" {

int __wrap_rename(const char* from, const char* to) {
  if (ZelFault::shouldFail(Call::Rename)) return -1;
  return __real_rename(from, to);
}

int __wrap_unlink(const char* path) {
  if (ZelFault::shouldFail(Call::Unlink)) return -1;
  return __real_unlink(path);
}

DIR* __wrap_opendir(const char* path) {
  if (ZelFault::shouldFail(Call::Opendir)) return nullptr;
  return __real_opendir(path);
}

// Depending on the large-file settings of the including code, fstat is
// referenced as fstat or fstat64; both are wrapped.
int __wrap_fstat(int fd, struct stat* st) {
  if (ZelFault::shouldFail(Call::Fstat)) return -1;
  return __real_fstat(fd, st);
}

int __wrap_fstat64(int fd, struct stat64* st) {
  if (ZelFault::shouldFail(Call::Fstat)) return -1;
  return __real_fstat64(fd, st);
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
  if (ZelFault::shouldFail(Call::Write, fd)) return -1;
  return __real_write(fd, data, size);
}

}  // extern "C"

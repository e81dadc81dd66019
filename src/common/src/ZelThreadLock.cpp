#include <zel/ZelThreadLock.h>

#include <cstring>

#include <zel/ZelException.h>

namespace Zel {

namespace {

// Turns a failed pthread call into the exception the lock's users expect.
[[noreturn]] void throwLockError(const char* format, int rc) {
  throw ZelInternalErrorException(format, rc, std::strerror(rc));
}

}  // namespace

ZelThreadLock::ZelThreadLock() {
  int rc = pthread_mutexattr_init(&_attributes);
  if (rc != 0) throwLockError("TxThreadLock::ZelThreadLock,pthread_mutexattr_init failed(%i,%s)", rc);
  rc = pthread_mutexattr_settype(&_attributes, PTHREAD_MUTEX_ERRORCHECK);
  if (rc != 0) throwLockError("TxThreadLock::ZelThreadLock,pthread_mutexattr_settype failed(%i,%s)", rc);
  rc = pthread_mutex_init(&_mutex, &_attributes);
  if (rc != 0) throwLockError("TxThreadLock::ZelThreadLock,pthread_mutex_init failed(%i,%s)", rc);
}

ZelThreadLock::~ZelThreadLock() { (void)pthread_mutex_destroy(&_mutex); }

int ZelThreadLock::lock() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  const int rc = pthread_mutex_lock(&_mutex);
  if (rc != 0) throwLockError("TxThreadLock::put, pthread_mutex_lock failed(%i,%s)", rc);
  return 0;
}

int ZelThreadLock::unlock() ZEL_NO_THREAD_SAFETY_ANALYSIS {
  const int rc = pthread_mutex_unlock(&_mutex);
  if (rc != 0) throwLockError("TxThreadLock::put, pthread_mutex_lock failed(%i,%s)", rc);
  return 0;
}

int ZelThreadLock::errUnlock() ZEL_NO_THREAD_SAFETY_ANALYSIS { return pthread_mutex_unlock(&_mutex); }

}  // namespace Zel

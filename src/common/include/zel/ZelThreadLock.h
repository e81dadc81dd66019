// ZelThreadLock.h - the library's error-checking mutex.
//
// A thin owner of one POSIX mutex of the error-checking kind: locking it twice
// from the holding thread, or unlocking it from a thread that does not hold
// it, is a programming fault that surfaces as a thrown
// ZelInternalErrorException instead of a deadlock or silent corruption.
// errUnlock() is the non-throwing release for clean-up paths.
//
// The library's own instance is LoggingWrapper::_lock, created when the
// library is loaded. Any thread may call any operation. Not copyable.
#ifndef ZEL_THREAD_LOCK_H
#define ZEL_THREAD_LOCK_H

#include <pthread.h>

#include <zel/ZelExport.h>
#include <zel/ZelThreadAnnotations.h>

namespace Zel {

class ZEL_API ZEL_CAPABILITY("mutex") ZelThreadLock {
 public:
  // Initialises the attributes, makes them error-checking, initialises the
  // mutex. Throws ZelInternalErrorException naming the failed step, e.g.
  // "TxThreadLock::ZelThreadLock,pthread_mutex_init failed(12,Cannot allocate memory)".
  ZelThreadLock();
  // Destroys the mutex; the result is ignored. Never throws.
  ~ZelThreadLock();

  ZelThreadLock(const ZelThreadLock&) = delete;
  ZelThreadLock& operator=(const ZelThreadLock&) = delete;

  // Returns 0, or throws ZelInternalErrorException
  // "TxThreadLock::put, pthread_mutex_lock failed(35,Resource deadlock avoided)"
  // when the calling thread already holds the lock.
  int lock() ZEL_ACQUIRE();
  // Returns 0, or throws with the same "pthread_mutex_lock failed" text (the
  // historical wording is kept), e.g. errno 1 (EPERM) when the calling
  // thread does not hold the lock.
  int unlock() ZEL_RELEASE();
  // Unlocks and returns pthread_mutex_unlock's result unchanged; never throws.
  int errUnlock() ZEL_RELEASE();
  // The raw mutex, for POSIX calls that need it. Stable for the object's life.
  pthread_mutex_t* getMutex() { return &_mutex; }

 private:
  pthread_mutex_t _mutex;
  pthread_mutexattr_t _attributes;  // kept for the object's lifetime
};

}  // namespace Zel

#endif  // ZEL_THREAD_LOCK_H

// ThreadLockGuard.h - scoped ownership of a ZelThreadLock.
//
// The guard takes the lock when it is made (or adopts a lock the caller has
// just taken) and gives it back when it goes out of scope. On the normal way
// out it calls unlock(), whose failure is reported by an exception as before;
// while an exception unwinds the stack it calls errUnlock(), which never
// throws, so the exception in flight passes on unchanged. release() gives
// the lock back early (before a framework interface is called outside it).
//
// Not thread-safe by itself: a guard belongs to the thread that made it.
#ifndef ZEL_INTERNAL_THREAD_LOCK_GUARD_H
#define ZEL_INTERNAL_THREAD_LOCK_GUARD_H

#include <exception>

#include <zel/ZelThreadAnnotations.h>
#include <zel/ZelThreadLock.h>

namespace Zel {
namespace internal {

class ZEL_THREAD_ATTRIBUTE(scoped_lockable) ThreadLockGuard {
 public:
  struct Adopt {};

  explicit ThreadLockGuard(ZelThreadLock* lock) ZEL_ACQUIRE(lock)
      : _lock(lock), _held(false), _exceptions(std::uncaught_exceptions()) {
    _lock->lock();
    _held = true;
  }
  // For a lock the calling thread already holds.
  ThreadLockGuard(ZelThreadLock* lock, Adopt) ZEL_REQUIRES(lock)
      : _lock(lock), _held(true), _exceptions(std::uncaught_exceptions()) {}

  ~ThreadLockGuard() noexcept(false) ZEL_RELEASE() {
    if (!_held) return;
    _held = false;
    if (std::uncaught_exceptions() > _exceptions) {
      (void)_lock->errUnlock();
    } else {
      _lock->unlock();
    }
  }

  // Gives the lock back now; the destructor then does nothing.
  void release() ZEL_RELEASE() {
    _held = false;
    _lock->unlock();
  }

  ThreadLockGuard(const ThreadLockGuard&) = delete;
  ThreadLockGuard& operator=(const ThreadLockGuard&) = delete;

 private:
  ZelThreadLock* _lock;
  bool _held;
  int _exceptions;  // exceptions in flight when the guard was made
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_THREAD_LOCK_GUARD_H

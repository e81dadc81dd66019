// ThreadLockGuard.h - scoped ownership of a ZelThreadLock.
//
// The guard takes the lock when it is made (or adopts a lock the caller has
// just taken) and gives it back when it goes out of scope. It unlocks with
// errUnlock(), which never throws. Only when that fails (a lock this thread
// does not hold; it cannot happen to a lock the guard took) does it look at
// the exceptions in flight: while one unwinds the stack it says nothing, so
// that exception passes on unchanged; otherwise it reports the failure as
// unlock() does, by throwing. The records' path thus pays for no more than
// the unlock itself. release() gives the lock back early (before a framework
// interface is called outside it).
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

  explicit ThreadLockGuard(ZelThreadLock* lock) ZEL_ACQUIRE(lock) : _lock(lock), _held(false) {
    _lock->lock();
    _held = true;
  }
  // For a lock the calling thread already holds.
  ThreadLockGuard(ZelThreadLock* lock, Adopt) ZEL_REQUIRES(lock) : _lock(lock), _held(true) {}

  ~ThreadLockGuard() noexcept(false) ZEL_RELEASE() {
    if (!_held) return;
    _held = false;
    if (_lock->errUnlock() == 0 || std::uncaught_exceptions() > 0) return;
    // A failed unlock leaves the mutex as it was, so unlock() fails the same
    // way and throws the lock's own exception for it.
    _lock->unlock();
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
};

}  // namespace internal
}  // namespace Zel

#endif  // ZEL_INTERNAL_THREAD_LOCK_GUARD_H

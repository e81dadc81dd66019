// LockProbe.h - whether a lock is free, seen from another thread.
#ifndef ZEL_TEST_LOCK_PROBE_H
#define ZEL_TEST_LOCK_PROBE_H

#include <zel/ZelThreadLock.h>

namespace ZelTest {

// True when another thread could take `lock` right now (it tries, and gives
// the lock back at once if it got it).
bool lockableFromOtherThread(Zel::ZelThreadLock& lock);

}  // namespace ZelTest

#endif  // ZEL_TEST_LOCK_PROBE_H

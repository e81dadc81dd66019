#include "support/LockProbe.h"

#include <pthread.h>

#include <thread>

namespace ZelTest {

bool lockableFromOtherThread(Zel::ZelThreadLock& lock) {
  bool lockable = false;
  std::thread other([&] {
    const int rc = pthread_mutex_trylock(lock.getMutex());
    lockable = rc == 0;
    if (rc == 0) pthread_mutex_unlock(lock.getMutex());
  });
  other.join();
  return lockable;
}

}  // namespace ZelTest

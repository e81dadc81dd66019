#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <zel/ZelException.h>
#include <zel/ZelThreadLock.h>
#include "support/LockProbe.h"

namespace {

using ZelTest::lockableFromOtherThread;
using Zel::ZelInternalErrorException;
using Zel::ZelThreadLock;

std::string lockFailure(int error) {
  return "ZelInternalErrorException(TxThreadLock::put, pthread_mutex_lock failed(" + std::to_string(error) + "," +
         std::strerror(error) + "))";
}

TEST(ZelThreadLock, LockAndUnlockReturnZero) {
  ZelThreadLock lock;
  EXPECT_EQ(0, lock.lock());
  EXPECT_FALSE(lockableFromOtherThread(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

TEST(ZelThreadLock, SecondLockBySameThreadThrowsDeadlockError) {
  ZelThreadLock lock;
  lock.lock();
  try {
    lock.lock();
    FAIL() << "second lock did not throw";
  } catch (const ZelInternalErrorException& e) {
    EXPECT_EQ(35, EDEADLK);
    EXPECT_EQ(lockFailure(EDEADLK), e.what());
  }
  // Held once: one unlock frees it.
  EXPECT_FALSE(lockableFromOtherThread(lock));
  EXPECT_EQ(0, lock.unlock());
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

TEST(ZelThreadLock, UnlockByForeignThreadThrowsPermissionErrorWithLockText) {
  ZelThreadLock lock;
  lock.lock();
  std::string what;
  std::thread other([&] {
    try {
      lock.unlock();
    } catch (const ZelInternalErrorException& e) {
      what = e.what();
    }
  });
  other.join();
  EXPECT_EQ(1, EPERM);
  EXPECT_EQ(lockFailure(EPERM), what);
  EXPECT_EQ(0, lock.unlock());
}

TEST(ZelThreadLock, UnlockOfFreeLockThrows) {
  ZelThreadLock lock;
  EXPECT_THROW(lock.unlock(), ZelInternalErrorException);
}

TEST(ZelThreadLock, ErrUnlockOfFreeLockReturnsErrorWithoutThrowing) {
  ZelThreadLock lock;
  int rc = 0;
  EXPECT_NO_THROW(rc = lock.errUnlock());
  EXPECT_EQ(EPERM, rc);
}

TEST(ZelThreadLock, ErrUnlockReleasesAHeldLock) {
  ZelThreadLock lock;
  lock.lock();
  EXPECT_EQ(0, lock.errUnlock());
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

TEST(ZelThreadLock, GetMutexIsStable) {
  ZelThreadLock lock;
  pthread_mutex_t* first = lock.getMutex();
  lock.lock();
  EXPECT_EQ(first, lock.getMutex());
  lock.unlock();
  EXPECT_EQ(first, lock.getMutex());
}

TEST(ZelThreadLock, MutexIsErrorChecking) {
  ZelThreadLock lock;
  ASSERT_EQ(0, pthread_mutex_lock(lock.getMutex()));
  EXPECT_EQ(EDEADLK, pthread_mutex_lock(lock.getMutex()));
  ASSERT_EQ(0, pthread_mutex_unlock(lock.getMutex()));
}

TEST(ZelThreadLock, LockExceptionCarriesOkCode) {
  ZelThreadLock lock;
  lock.lock();
  try {
    lock.lock();
  } catch (const ZelInternalErrorException& e) {
    EXPECT_EQ(ZelOk, e.getReturnCode());
  }
  lock.unlock();
}

}  // namespace

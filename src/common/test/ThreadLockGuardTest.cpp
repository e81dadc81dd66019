// Tests of internal::ThreadLockGuard: the scoped owner of a ZelThreadLock
// used on the logging paths.
#include "internal/ThreadLockGuard.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include <zel/ZelException.h>
#include <zel/ZelThreadLock.h>
#include "support/LockProbe.h"

namespace {

using ZelTest::lockableFromOtherThread;
using Zel::ZelInternalErrorException;
using Zel::ZelThreadLock;
using Zel::internal::ThreadLockGuard;

TEST(ThreadLockGuard, HoldsTheLockForItsScope) {
  ZelThreadLock lock;
  {
    ThreadLockGuard guard(&lock);
    EXPECT_FALSE(lockableFromOtherThread(lock));
  }
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

TEST(ThreadLockGuard, AdoptsALockTheThreadHasJustTaken) {
  ZelThreadLock lock;
  ASSERT_EQ(0, lock.lock());
  {
    ThreadLockGuard guard(&lock, ThreadLockGuard::Adopt());
    EXPECT_FALSE(lockableFromOtherThread(lock));
  }
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

TEST(ThreadLockGuard, ReleaseGivesTheLockBackEarlyAndOnlyOnce) {
  ZelThreadLock lock;
  {
    ThreadLockGuard guard(&lock);
    guard.release();
    EXPECT_TRUE(lockableFromOtherThread(lock));
    ASSERT_EQ(0, lock.lock());  // held again, by hand: the guard must not unlock it
  }
  EXPECT_FALSE(lockableFromOtherThread(lock));
  EXPECT_EQ(0, lock.unlock());
}

TEST(ThreadLockGuard, SecondGuardOnTheSameThreadThrowsTheLocksDeadlockError) {
  ZelThreadLock lock;
  ThreadLockGuard outer(&lock);
  try {
    ThreadLockGuard inner(&lock);
    FAIL() << "a second lock by the holding thread must throw";
  } catch (const ZelInternalErrorException& error) {
    EXPECT_EQ(std::string("ZelInternalErrorException(TxThreadLock::put, pthread_mutex_lock failed(") +
                  std::to_string(EDEADLK) + "," + std::strerror(EDEADLK) + "))",
              error.what());
  }
  EXPECT_FALSE(lockableFromOtherThread(lock));  // still held by the outer guard
}

TEST(ThreadLockGuard, ExceptionUnderTheGuardPassesUnchangedAndFreesTheLock) {
  ZelThreadLock lock;
  try {
    ThreadLockGuard guard(&lock);
    throw std::runtime_error("from under the lock");
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("from under the lock", error.what());
  }
  EXPECT_TRUE(lockableFromOtherThread(lock));
}

// Deliberate misuse: the lock is unlocked behind the guard's back, so the
// guard's own unlock fails (EPERM: not the owner).
TEST(ThreadLockGuard, FailedUnlockIsThrownWithTheLocksText) {
  ZelThreadLock lock;
  try {
    ThreadLockGuard guard(&lock);
    ASSERT_EQ(0, lock.errUnlock());
  } catch (const ZelInternalErrorException& error) {
    EXPECT_EQ(std::string("ZelInternalErrorException(TxThreadLock::put, pthread_mutex_lock failed(") +
                  std::to_string(EPERM) + "," + std::strerror(EPERM) + "))",
              error.what());
    return;
  }
  FAIL() << "the failed unlock was not reported";
}

// Deliberate misuse as above, while an exception unwinds: the guard says
// nothing, and the exception in flight arrives unchanged.
TEST(ThreadLockGuard, FailedUnlockWhileUnwindingLetsTheExceptionInFlightPass) {
  ZelThreadLock lock;
  try {
    ThreadLockGuard guard(&lock);
    ASSERT_EQ(0, lock.errUnlock());
    throw std::runtime_error("in flight");
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("in flight", error.what());
    return;
  }
  FAIL() << "the exception in flight was lost";
}

}  // namespace

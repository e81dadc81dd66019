// Tests of Zel::Clock: monotonic reading, resolution, value semantics and the
// failure of the system clock.
#include <zel/Clock.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <Poco/Exception.h>

#include <cstdint>
#include <limits>
#include <utility>

// The clock calls are replaced for this test program so that a test can make
// them fail or report a chosen resolution. Only the thread that arms a fake
// is affected; every other call goes to the kernel unchanged.
namespace {
thread_local bool tFailClock = false;
thread_local bool tFakeResolution = false;
thread_local struct timespec tResolution = {0, 0};
}  // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  if (tFailClock && clock == CLOCK_MONOTONIC) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

extern "C" int clock_getres(clockid_t clock, struct timespec* resolution) noexcept {
  if (tFailClock && clock == CLOCK_MONOTONIC) {
    errno = EINVAL;
    return -1;
  }
  if (tFakeResolution && clock == CLOCK_MONOTONIC) {
    *resolution = tResolution;
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_getres, clock, resolution));
}

namespace {

// Arms a fake for the current scope.
struct FailingClock {
  FailingClock() { tFailClock = true; }
  ~FailingClock() { tFailClock = false; }
};
struct FakeResolution {
  FakeResolution(time_t seconds, long nanoseconds) {
    tResolution = {seconds, nanoseconds};
    tFakeResolution = true;
  }
  ~FakeResolution() { tFakeResolution = false; }
};

long monotonicMicroseconds() {
  struct timespec now;
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000L + now.tv_nsec / 1000;
}

TEST(Clock, DefaultConstructorReadsTheMonotonicClockInMicroseconds) {
  const long before = monotonicMicroseconds();
  const Zel::Clock clock;
  const long after = monotonicMicroseconds();
  EXPECT_LE(before, clock.value());
  EXPECT_GE(after, clock.value());
}

TEST(Clock, SuccessiveUpdatesNeverGoBack) {
  Zel::Clock clock;
  long previous = clock.value();
  for (int i = 0; i < 100000; ++i) {
    clock.update();
    ASSERT_GE(clock.value(), previous) << "after " << i << " updates";
    previous = clock.value();
  }
}

TEST(Clock, UpdateFollowsTheClock) {
  Zel::Clock clock;
  const Zel::Clock start(clock);
  usleep(20000);
  clock.update();
  EXPECT_GE(clock - start, 20000);
}

TEST(Clock, AccuracyIsOneOnANanosecondClock) {
  struct timespec resolution;
  ASSERT_EQ(0, syscall(SYS_clock_getres, CLOCK_MONOTONIC, &resolution));
  ASSERT_EQ(0, resolution.tv_sec);
  ASSERT_LT(resolution.tv_nsec, 1000) << "this system's monotonic clock is coarser than a microsecond";
  EXPECT_EQ(1, Zel::Clock::accuracy());
  const Zel::Clock clock(12);
  EXPECT_EQ(1, clock.accuracy()) << "the same for every object";
}

TEST(Clock, AccuracyTruncatesToMicrosecondsAndIsAtLeastOne) {
  {
    FakeResolution resolution(0, 1);
    EXPECT_EQ(1, Zel::Clock::accuracy());
  }
  {
    FakeResolution resolution(0, 0);
    EXPECT_EQ(1, Zel::Clock::accuracy());
  }
  {
    FakeResolution resolution(0, 1999);
    EXPECT_EQ(1, Zel::Clock::accuracy());
  }
  {
    FakeResolution resolution(0, 4000000);  // a 4 ms tick
    EXPECT_EQ(4000, Zel::Clock::accuracy());
  }
  {
    FakeResolution resolution(2, 500999);
    EXPECT_EQ(2000500, Zel::Clock::accuracy());
  }
}

TEST(Clock, SwapExchangesTheValues) {
  Zel::Clock five(5);
  Zel::Clock seven(7);
  five.swap(seven);
  EXPECT_EQ(7, five.value());
  EXPECT_EQ(5, seven.value());
  five.swap(five);
  EXPECT_EQ(7, five.value());
}

TEST(Clock, BoundsAreTheSigned64BitLimits) {
  EXPECT_EQ(std::numeric_limits<int64_t>::min(), Zel::Clock::CLOCKVAL_MIN);
  EXPECT_EQ(std::numeric_limits<int64_t>::max(), Zel::Clock::CLOCKVAL_MAX);
  EXPECT_EQ(-9223372036854775807L - 1, Zel::Clock::CLOCKVAL_MIN);
  EXPECT_EQ(9223372036854775807L, Zel::Clock::CLOCKVAL_MAX);
  static_assert(sizeof(Zel::Clock) == 8, "a Clock is one signed 64-bit value");
  const Zel::Clock lowest(Zel::Clock::CLOCKVAL_MIN);
  const Zel::Clock highest(Zel::Clock::CLOCKVAL_MAX);
  EXPECT_LT(lowest, Zel::Clock());
  EXPECT_GT(highest, Zel::Clock());
}

TEST(Clock, CopiesAndAssignmentsCarryTheValue) {
  const Zel::Clock original(123456789);
  Zel::Clock copy(original);
  EXPECT_EQ(123456789, copy.value());
  Zel::Clock assigned(1);
  assigned = original;
  EXPECT_EQ(original, assigned);
  assigned = -42L;
  EXPECT_EQ(-42, assigned.value());
  Zel::Clock& self = assigned;
  assigned = self;
  EXPECT_EQ(-42, assigned.value());
}

TEST(Clock, DifferenceAndAdditionWorkInMicroseconds) {
  EXPECT_EQ(1000, Zel::Clock(1500) - Zel::Clock(500));
  EXPECT_EQ(-1000, Zel::Clock(500) - Zel::Clock(1500));
  Zel::Clock deadline(5);
  deadline += 7;
  EXPECT_EQ(12, deadline.value());
  deadline += -20;
  EXPECT_EQ(-8, deadline.value());
  EXPECT_EQ(50008, (Zel::Clock(8) + 50 * 1000).value());
  EXPECT_TRUE(Zel::Clock(3) != Zel::Clock(4));
  EXPECT_TRUE(Zel::Clock(3) <= Zel::Clock(3));
  EXPECT_TRUE(Zel::Clock(4) >= Zel::Clock(3));
}

TEST(Clock, FailedUpdateThrowsSystemExceptionAndKeepsTheOldValue) {
  Zel::Clock clock(77);
  FailingClock failing;
  try {
    clock.update();
    FAIL() << "no exception";
  } catch (const Poco::SystemException& exception) {
    EXPECT_EQ("cannot get system clock", exception.message());
    EXPECT_EQ(0, exception.code());
    EXPECT_EQ("System exception: cannot get system clock", exception.displayText());
  }
  EXPECT_EQ(77, clock.value());
  EXPECT_THROW(Zel::Clock(), Poco::SystemException);
}

TEST(Clock, FailedResolutionThrowsTheSameText) {
  FailingClock failing;
  try {
    Zel::Clock::accuracy();
    FAIL() << "no exception";
  } catch (const Poco::SystemException& exception) {
    EXPECT_EQ("cannot get system clock", exception.message());
    EXPECT_EQ(0, exception.code());
  }
}

}  // namespace

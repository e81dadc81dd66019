#include <zel/Clock.h>

#include <time.h>

#include <Poco/Exception.h>

#include <limits>

namespace Zel {

const long Clock::CLOCKVAL_MIN = std::numeric_limits<long>::min();
const long Clock::CLOCKVAL_MAX = std::numeric_limits<long>::max();

namespace {

long toMicroseconds(const struct timespec& time) { return time.tv_sec * 1000000L + time.tv_nsec / 1000; }

[[noreturn]] void throwClockFailure() { throw Poco::SystemException("cannot get system clock"); }

}  // namespace

Clock::Clock() : _value(0) { update(); }

void Clock::update() {
  struct timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) throwClockFailure();
  _value = toMicroseconds(now);
}

long Clock::accuracy() {
  struct timespec resolution;
  if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0) throwClockFailure();
  const long microseconds = toMicroseconds(resolution);
  return microseconds > 0 ? microseconds : 1;
}

}  // namespace Zel

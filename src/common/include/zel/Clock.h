// Clock.h - one point in time of the monotonic clock, in microseconds.
//
// Zel::Clock is a small value type: a signed 64-bit count of microseconds on
// CLOCK_MONOTONIC. The origin is the system's, so only differences between
// clocks mean anything; wall-clock changes never move it. The Timer keeps its
// deadlines in a Clock and measures the time left against a fresh one.
//
// Threads: a Clock is a plain value with no shared state; guard an object that
// several threads change like any other variable.
#ifndef ZEL_CLOCK_H
#define ZEL_CLOCK_H

#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API Clock {
 public:
  // Bounds of the value: the smallest and the largest signed 64-bit numbers.
  static const long CLOCKVAL_MIN;  // -9223372036854775808
  static const long CLOCKVAL_MAX;  //  9223372036854775807

  // The current time (see update()).
  Clock();
  // The given number of microseconds.
  explicit Clock(long value) : _value(value) {}
  Clock(const Clock& other) : _value(other._value) {}  // the same point in time
  // Takes over the value of other.
  Clock& operator=(const Clock& other) {
    _value = other._value;
    return *this;
  }
  // Sets the value to the given number of microseconds.
  Clock& operator=(long value) {
    _value = value;
    return *this;
  }
  ~Clock() {}

  // Exchanges the two values: {5}.swap({7}) leaves 7 and 5.
  void swap(Clock& other) {
    const long mine = _value;
    _value = other._value;
    other._value = mine;
  }

  // Reads CLOCK_MONOTONIC: seconds * 1000000 + nanoseconds / 1000
  // (truncating). Throws Poco::SystemException "cannot get system clock"
  // (code 0) if the clock cannot be read; the old value is then kept.
  void update();
  // The clock's resolution in microseconds, at least 1 (a finer resolution,
  // e.g. 1 ns, gives 1). Same result for every object. Throws
  // Poco::SystemException "cannot get system clock" if it cannot be read.
  static long accuracy();

  // Microseconds since the clock's origin.
  long value() const { return _value; }

  // Microseconds from other to this clock: Clock(1500) - Clock(500) == 1000.
  long operator-(const Clock& other) const { return _value - other._value; }
  // Moves the clock by a number of microseconds.
  Clock& operator+=(long microseconds) {
    _value += microseconds;
    return *this;
  }
  // A clock the given number of microseconds later: Clock(500) + 1000 == Clock(1500).
  Clock operator+(long microseconds) const { return Clock(_value + microseconds); }

  bool operator==(const Clock& other) const { return _value == other._value; }  // same point in time
  bool operator!=(const Clock& other) const { return _value != other._value; }  // different points in time
  bool operator<(const Clock& other) const { return _value < other._value; }  // earlier than other
  bool operator<=(const Clock& other) const { return _value <= other._value; }  // not later than other
  bool operator>(const Clock& other) const { return _value > other._value; }  // later than other
  bool operator>=(const Clock& other) const { return _value >= other._value; }  // not earlier than other

 private:
  long _value;
};

}  // namespace Zel

#endif  // ZEL_CLOCK_H

// FuzzSupport.h - shared pieces of the libFuzzer targets: a reader that
// carves typed values out of the fuzzer's bytes, and a check that stops the
// run with a message when an expectation does not hold.
#ifndef ZEL_FUZZ_SUPPORT_H
#define ZEL_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// Stops the run (libFuzzer then saves the input) when cond is false.
#define FUZZ_CHECK(cond, what)                                                            \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      std::fprintf(stderr, "FUZZ_CHECK failed at %s:%d: %s (%s)\n", __FILE__, __LINE__, #cond, \
                   std::string(what).c_str());                                            \
      std::abort();                                                                       \
    }                                                                                     \
  } while (0)

namespace ZelFuzz {

// Hands out the input front to back; once it is used up every read yields
// zero bytes, so a target never reads past the end whatever the input.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : _data(data), _size(size), _at(0) {}

  bool empty() const { return _at >= _size; }
  size_t remaining() const { return _size - _at; }

  uint8_t byte() { return _at < _size ? _data[_at++] : 0; }

  uint64_t bits64() {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = (value << 8) | byte();
    return value;
  }

  // Up to maxLength bytes, the length taken from the input first.
  std::string text(size_t maxLength) {
    size_t length = byte();
    if (maxLength < 256) length %= maxLength + 1;
    return take(length);
  }

  // Text up to the next byte equal to separator (which is consumed), or to
  // the end of the input.
  std::string until(char separator) {
    std::string result;
    while (_at < _size) {
      const char c = static_cast<char>(_data[_at++]);
      if (c == separator) break;
      result.push_back(c);
    }
    return result;
  }

  std::string rest() { return take(remaining()); }

 private:
  std::string take(size_t length) {
    if (length > remaining()) length = remaining();
    std::string result(reinterpret_cast<const char*>(_data + _at), length);
    _at += length;
    return result;
  }

  const uint8_t* _data;
  size_t _size;
  size_t _at;
};

// The ASCII white space of the library's trimming: space, \t, \n, \v, \f, \r.
inline bool isAsciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline bool isTrimmed(const std::string& s) {
  return s.empty() || (!isAsciiSpace(s.front()) && !isAsciiSpace(s.back()));
}

inline std::string trimmed(const std::string& s) {
  size_t begin = 0;
  size_t end = s.size();
  while (begin < end && isAsciiSpace(s[begin])) ++begin;
  while (end > begin && isAsciiSpace(s[end - 1])) --end;
  return s.substr(begin, end - begin);
}

}  // namespace ZelFuzz

#endif  // ZEL_FUZZ_SUPPORT_H

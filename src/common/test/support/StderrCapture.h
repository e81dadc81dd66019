// StderrCapture.h - collects what the code under test writes to standard error.
//
// While an object lives, file descriptor 2 points at a temporary file;
// release() (or the destructor) flushes stderr, restores the descriptor and
// returns the captured text. Not thread-safe: one capture at a time.
#ifndef ZEL_TEST_STDERR_CAPTURE_H
#define ZEL_TEST_STDERR_CAPTURE_H

#include <string>

namespace ZelTest {

class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Stops capturing and returns everything written since construction.
  std::string release();

 private:
  int _savedFd;
  int _captureFd;
  std::string _text;
  bool _active;
};

}  // namespace ZelTest

#endif  // ZEL_TEST_STDERR_CAPTURE_H

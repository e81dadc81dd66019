#include "support/StderrCapture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "support/TempDir.h"

namespace ZelTest {

StderrCapture::StderrCapture() : _savedFd(-1), _captureFd(-1), _active(false) {
  std::string pattern = (testRoot().empty() ? std::string("/tmp") : testRoot()) + "/stderr.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  _captureFd = mkstemp(name.data());
  if (_captureFd < 0) throw std::runtime_error("mkstemp failed");
  (void)unlink(name.data());
  fflush(stderr);
  _savedFd = dup(2);
  if (_savedFd < 0 || dup2(_captureFd, 2) < 0) throw std::runtime_error("dup2 failed");
  _active = true;
}

StderrCapture::~StderrCapture() {
  if (_active) (void)release();
  if (_captureFd >= 0) ::close(_captureFd);
}

std::string StderrCapture::release() {
  if (!_active) return _text;
  fflush(stderr);
  (void)dup2(_savedFd, 2);
  ::close(_savedFd);
  _active = false;
  off_t end = lseek(_captureFd, 0, SEEK_END);
  _text.resize(end > 0 ? static_cast<size_t>(end) : 0);
  if (end > 0) {
    ssize_t got = pread(_captureFd, &_text[0], _text.size(), 0);
    _text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  }
  return _text;
}

}  // namespace ZelTest

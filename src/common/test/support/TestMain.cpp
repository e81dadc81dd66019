// main() of the test program: every test runs with TMPDIR pointing at a
// private root directory, removed at the end, so no test touches /tmp/zel.log
// or leaves files behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/TempDir.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zel_tests.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    perror("mkdtemp");
    return 2;
  }
  const std::string root = buffer.data();
  ZelTest::setTestRoot(root);
  setenv("TMPDIR", root.c_str(), 1);
  // Settings of the caller's shell must not leak into the tests.
  for (const char* name : {"ZEL_LOGGING_FNAME", "ZEL_LOGGING_LEVEL", "ZEL_LOGGING_FMAXSIZE",
                           "ZEL_LOGGING_FMAXCOUNT", "TAV_ENV", "ZEL_LOGGING_CRASH_FLUSH"})
    unsetenv(name);
  const pid_t self = getpid();
  const int result = RUN_ALL_TESTS();
  if (getpid() == self) ZelTest::removeTree(root);
  return result;
}

// WrapperFixture.h - logging wrappers made fresh for one test.
//
// LoggingWrapper reads its environment in the constructor, so a test sets the
// variables it wants, builds a wrapper of its own with makeWrapper() and works
// on that instance; the process's singleton is left alone. Wrappers are never
// destroyed (the destructor would destroy the shared LoggingWrapper::_lock):
// they stay reachable from a registry until the process ends, and the fixture
// closes their files when the test ends so the temp dir can be removed.
#ifndef ZEL_TEST_WRAPPER_FIXTURE_H
#define ZEL_TEST_WRAPPER_FIXTURE_H

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/TempDir.h"

namespace ZelTest {

typedef std::vector<std::pair<std::string, std::string>> EnvList;

// Builds a wrapper with TMPDIR = dir and the given extra variables set for the
// construction only (every ZEL_LOGGING_* variable and TAV_ENV not listed is
// unset meanwhile).
Zel::LoggingWrapper* makeWrapper(const std::string& dir, const EnvList& env = {});
// Closes the wrapper's local file (under the logging lock).
void closeWrapperFile(Zel::LoggingWrapper* wrapper);

class WrapperTest : public TempDirTest {
 protected:
  Zel::LoggingWrapper* wrapper(const EnvList& env = {}) {
    Zel::LoggingWrapper* w = makeWrapper(tmp.path(), env);
    _made.push_back(w);
    return w;
  }
  void TearDown() override {
    for (Zel::LoggingWrapper* w : _made) closeWrapperFile(w);
  }
  // Path of the default live file in the test's temp dir.
  std::string liveFile() const { return tmp.file("zel.log"); }

 private:
  std::vector<Zel::LoggingWrapper*> _made;
};

}  // namespace ZelTest

#endif  // ZEL_TEST_WRAPPER_FIXTURE_H

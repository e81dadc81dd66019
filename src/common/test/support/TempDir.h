// TempDir.h - a fresh directory per test, removed with everything in it.
//
// The test program's main() points TMPDIR at a private root directory first,
// so nothing a test does (including the logging singleton's default file)
// lands in the real /tmp. TempDir makes a new directory below that root.
#ifndef ZEL_TEST_TEMPDIR_H
#define ZEL_TEST_TEMPDIR_H

#include <gtest/gtest.h>

#include <string>

namespace ZelTest {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return _path; }
  // path() + "/" + name
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

// Removes a directory tree; directories made unreadable or unwritable by a
// test are given their permissions back first.
void removeTree(const std::string& path);
// Reads a whole file; "" when it cannot be read.
std::string readFile(const std::string& path);
// Writes (replaces) a file with the given content.
void writeFile(const std::string& path, const std::string& content);
bool fileExists(const std::string& path);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> listDir(const std::string& path);
// The private root directory made by main().
const std::string& testRoot();
void setTestRoot(const std::string& root);

// The fixture most tests use: one fresh temp dir per test.
class TempDirTest : public ::testing::Test {
 protected:
  TempDir tmp;
};

}  // namespace ZelTest

#endif  // ZEL_TEST_TEMPDIR_H

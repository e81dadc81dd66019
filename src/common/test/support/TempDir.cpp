#include "support/TempDir.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace ZelTest {

namespace {
std::string& rootStorage() {
  static std::string root;
  return root;
}

int restorePermissions(const char* path, const struct stat* st, int type, struct FTW*) {
  if (type == FTW_D || type == FTW_DNR || type == FTW_DP) {
    (void)chmod(path, 0700);
  } else if (st != nullptr && S_ISREG(st->st_mode)) {
    (void)chmod(path, 0600);
  }
  return 0;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  (void)::remove(path);
  return 0;
}
}  // namespace

const std::string& testRoot() { return rootStorage(); }
void setTestRoot(const std::string& root) { rootStorage() = root; }

TempDir::TempDir() {
  std::string base = testRoot().empty() ? std::string("/tmp") : testRoot();
  std::string pattern = base + "/t.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  _path = buffer.data();
}

TempDir::~TempDir() { removeTree(_path); }

void removeTree(const std::string& path) {
  // First pass (pre-order) gives back permissions so the second can descend.
  (void)chmod(path.c_str(), 0700);
  (void)nftw(path.c_str(), restorePermissions, 16, FTW_PHYS);
  (void)nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (struct dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace ZelTest

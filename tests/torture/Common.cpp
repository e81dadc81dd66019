// Helpers shared by the supervisor, the writers and the checker.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Torture.h"

namespace ZelTorture {

const FaultName kFaultNames[] = {
    {"fork", kFork, "writers fork children that log, that never log (kept alive) and that _exit"},
    {"kill", kKill, "SIGKILL of writers, most while they hold the directory lock"},
    {"rename", kRename, "bursts of renames of the live file from outside"},
    {"rmdir", kRmdir, "the log directory moved away and made again, then new writers"},
    {"hold", kHold, "the directory lock held by a stranger for up to 3 s"},
    {"holdlong", kHoldLong, "the directory lock held by a stranger for 12 s or more"},
    {"fname", kFname, "some writers switch set_fname between zel.log and other.log"},
    {"fullfs", kFullFs, "the log file system filled and freed again (root only)"},
};
const size_t kFaultCount = sizeof(kFaultNames) / sizeof(kFaultNames[0]);

bool parseFaults(const std::string& text, unsigned& faults) {
  faults = 0;
  size_t at = 0;
  while (at <= text.size()) {
    size_t comma = text.find(',', at);
    if (comma == std::string::npos) comma = text.size();
    std::string name = text.substr(at, comma - at);
    at = comma + 1;
    if (name.empty()) continue;
    const bool remove = name[0] == '-';
    if (remove) name.erase(0, 1);
    unsigned bits = 0;
    if (name == "all") {
      bits = kAllFaults;
    } else if (name != "none") {
      for (size_t i = 0; i < kFaultCount; ++i)
        if (name == kFaultNames[i].name) bits = kFaultNames[i].bit;
      if (bits == 0) return false;
    }
    faults = remove ? (faults & ~bits) : (faults | bits);
  }
  return true;
}

std::string faultList(unsigned faults) {
  std::string list;
  for (size_t i = 0; i < kFaultCount; ++i) {
    if ((faults & kFaultNames[i].bit) == 0) continue;
    if (!list.empty()) list += ",";
    list += kFaultNames[i].name;
  }
  return list.empty() ? "none" : list;
}

uint64_t mix(uint64_t a, uint64_t b) {
  Random r(a * 0x9e3779b97f4a7c15ull ^ b);
  return r.next();
}

std::string recordMessage(unsigned id, unsigned thread, uint64_t seq, long pid) {
  const uint64_t h = mix(mix(id, thread), seq);
  const size_t padLength = static_cast<size_t>(h % 120);
  const char letter = static_cast<char>('a' + (h >> 32) % 26);
  char head[96];
  std::snprintf(head, sizeof(head), "ZT %u %u %llu %ld ", id, thread, static_cast<unsigned long long>(seq), pid);
  std::string message(head);
  message.append(padLength, letter);
  message += '|';
  return message;
}

std::string lineAfterStamp(const std::string& message) {
  char head[64];
  std::snprintf(head, sizeof(head), " IN %-25s ", kFunction);
  return head + message;
}

int64_t monotonicMicros() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void sleepMicros(int64_t micros) {
  if (micros <= 0) return;
  struct timespec nap = {static_cast<time_t>(micros / 1000000), static_cast<long>(micros % 1000000) * 1000};
  while (nanosleep(&nap, &nap) != 0 && errno == EINTR) {
  }
}

void writeLine(int fd, const std::string& line) { writeAll(fd, line + "\n"); }

void writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the journal's disk is not the one being filled
    done += static_cast<size_t>(written);
  }
}

std::string readFile(const std::string& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
  }
  ::close(fd);
  return text;
}

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

bool removeTree(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (S_ISDIR(st.st_mode)) {
    bool ok = true;
    for (const std::string& name : listDir(path)) ok = removeTree(path + "/" + name) && ok;
    if (::rmdir(path.c_str()) != 0) {
      std::fprintf(stderr, "zel_torture: cannot remove %s: %s\n", path.c_str(), std::strerror(errno));
      return false;
    }
    return ok;
  }
  if (::unlink(path.c_str()) != 0) {
    std::fprintf(stderr, "zel_torture: cannot remove %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  return true;
}

Layout::Layout(const std::string& runDir)
    : run(runDir),
      fs(runDir + "/fs"),
      logDir(runDir + "/fs/log"),
      journals(runDir + "/journal"),
      stderrs(runDir + "/stderr") {}

}  // namespace ZelTorture

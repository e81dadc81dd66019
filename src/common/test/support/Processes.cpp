#include "support/Processes.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace ZelTest {

Processes::Processes() : _gate{-1, -1} {
  if (::pipe(_gate) != 0) _gate[0] = _gate[1] = -1;
}

Processes::~Processes() {
  for (pid_t pid : _children) {
    ::kill(pid, SIGKILL);
    (void)waitStatus(pid);
  }
  if (_gate[0] >= 0) ::close(_gate[0]);
  if (_gate[1] >= 0) ::close(_gate[1]);
}

pid_t Processes::start(const std::function<void()>& prepare, const std::function<int()>& body) {
  std::fflush(nullptr);  // nothing buffered is written twice
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(_gate[1]);
    prepare();
    char byte;
    // The parent's go() closes the write end: read returns 0.
    while (::read(_gate[0], &byte, 1) < 0 && errno == EINTR) {
    }
    ::close(_gate[0]);
    const int result = body();
    _exit(result);
  }
  if (pid > 0) _children.push_back(pid);
  return pid;
}

void Processes::go() {
  if (_gate[1] >= 0) ::close(_gate[1]);
  _gate[1] = -1;
}

std::string Processes::waitAll(int timeoutSeconds) {
  go();
  std::string failures;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  std::vector<pid_t> running = _children;
  _children.clear();
  while (!running.empty()) {
    for (size_t i = 0; i < running.size();) {
      int status = 0;
      const pid_t done = ::waitpid(running[i], &status, WNOHANG);
      if (done == 0) {
        ++i;
        continue;
      }
      if (done < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failures += "child " + std::to_string(running[i]) + " ended with wait status " + std::to_string(status) + "\n";
      }
      running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (running.empty()) break;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - start.tv_sec > timeoutSeconds) {
      for (pid_t pid : running) {
        ::kill(pid, SIGKILL);
        (void)waitStatus(pid);
        failures += "child " + std::to_string(pid) + " timed out\n";
      }
      break;
    }
    struct timespec nap = {0, 5 * 1000 * 1000};
    nanosleep(&nap, nullptr);
  }
  return failures;
}

pid_t startProcess(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

int waitStatus(pid_t pid) {
  int status = 0;
  for (;;) {
    if (::waitpid(pid, &status, 0) == pid) return status;
    if (errno != EINTR) return -1;
  }
}

}  // namespace ZelTest

// Processes.h - real child processes for tests of what several processes do
// to one resource at the same time (the shared log file).
//
//   ZelTest::Processes group;
//   for (int i = 0; i < 4; ++i) group.start([i] { ...; return 0; });
//   group.go();                       // all children start their work together
//   EXPECT_EQ("", group.waitAll());   // "" when every child exited with 0
//
// Each child is a fork of the test process that waits at a gate (a pipe)
// until go() is called, runs its body and ends with _exit(body's result),
// so that nothing of the parent (GoogleTest's state, exit handlers) runs in
// it. Children that are still running when the group is destroyed are
// killed. Not thread-safe: use a group from one thread.
#ifndef ZEL_TEST_PROCESSES_H
#define ZEL_TEST_PROCESSES_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace ZelTest {

class Processes {
 public:
  Processes();
  ~Processes();
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;

  // Forks a child that runs `prepare` at once and `body` once go() has been
  // called. Returns its pid.
  pid_t start(const std::function<void()>& prepare, const std::function<int()>& body);
  pid_t start(const std::function<int()>& body) { return start([] {}, body); }
  // Opens the gate: every child started so far begins its body.
  void go();
  // Waits for every child (at most `timeoutSeconds`, then kills the rest).
  // Returns "" when all exited with status 0, else a description per child.
  std::string waitAll(int timeoutSeconds = 240);

 private:
  int _gate[2];
  std::vector<pid_t> _children;
};

// Forks a child that runs `body` at once and returns its pid (no gate).
pid_t startProcess(const std::function<void()>& body);
// Waits for `pid` and returns its raw wait status (-1 when waitpid fails).
int waitStatus(pid_t pid);

}  // namespace ZelTest

#endif  // ZEL_TEST_PROCESSES_H

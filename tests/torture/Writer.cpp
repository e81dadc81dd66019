// The writer role: one process of several threads that log numbered records
// through the logging wrapper until the run's end, confirm them with
// flush(), and now and then fork a child or switch the file name. Every
// step is written to the process's journal (Torture.h) first or right
// after, so that the checker knows what was logged and what was confirmed
// even when the supervisor killed the process.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "Torture.h"

namespace ZelTorture {

namespace {

enum ChildKind { kLoggingChild = 0, kSleepingChild = 1, kExitingChild = 2 };

// One logging process (a writer or a logging child) and its journal.
struct Process {
  unsigned id = 0;
  long pid = 0;
  int journal = -1;
  std::atomic<uint64_t> tick{0};
  Zel::LoggingWrapper* wrapper = nullptr;

  void note(const std::string& line) { writeLine(journal, line); }

  // Logs records seq .. seq + count - 1 of `thread`.
  void logBatch(unsigned thread, uint64_t& seq, unsigned count) {
    const uint64_t first = seq;
    const uint64_t start = tick.fetch_add(1);
    for (unsigned i = 0; i < count; ++i, ++seq) {
      const std::string message = recordMessage(id, thread, seq, pid);
      wrapper->log_printf(kFunction, 6, 1, "%s", message.c_str());
    }
    const uint64_t end = tick.fetch_add(1);
    char line[128];
    std::snprintf(line, sizeof(line), "B %u %llu %llu %llu %llu", thread, static_cast<unsigned long long>(first),
                  static_cast<unsigned long long>(seq - 1), static_cast<unsigned long long>(start),
                  static_cast<unsigned long long>(end));
    note(line);
  }

  bool flush(unsigned thread) {
    const uint64_t start = tick.fetch_add(1);
    char line[128];
    std::snprintf(line, sizeof(line), "f %u %llu", thread, static_cast<unsigned long long>(start));
    note(line);
    const bool ok = wrapper->flush();
    const uint64_t end = tick.fetch_add(1);
    std::snprintf(line, sizeof(line), "F %u %llu %llu %d", thread, static_cast<unsigned long long>(start),
                  static_cast<unsigned long long>(end), ok ? 1 : 0);
    note(line);
    return ok;
  }
};

struct Settings {
  unsigned id = 0;
  uint64_t seed = 0;
  int64_t until = 0;
  unsigned faults = 0;
  std::string run;
};

int openAppend(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// A logging child: logs a few batches with its own id (one thread, 0) and
// ends with exit() (the library's exit flush runs) or _exit() after its
// last flush().
[[noreturn]] void loggingChild(const Settings& settings, const Layout& layout, unsigned childId) {
  (void)prctl(PR_SET_NAME, "zt-child", 0, 0, 0);
  const int err = openAppend(layout.stderrFile(childId));
  if (err >= 0) {
    (void)::dup2(err, 2);
    ::close(err);
  }
  Process child;
  child.id = childId;
  child.pid = static_cast<long>(::getpid());
  child.journal = openAppend(layout.journal(childId));
  if (child.journal < 0) _exit(3);
  child.wrapper = Zel::LoggingWrapper::getInstance();
  child.note("P " + std::to_string(childId) + " " + std::to_string(child.pid) + " C " + std::to_string(settings.id) +
             " 1 0");
  Random rng(mix(settings.seed, childId));
  uint64_t seq = 0;
  const unsigned batches = static_cast<unsigned>(rng.between(1, 4));
  for (unsigned b = 0; b < batches; ++b) {
    child.logBatch(0, seq, static_cast<unsigned>(rng.between(1, 60)));
    child.flush(0);
  }
  child.note("E");
  if (rng.chance(50)) std::exit(0);
  _exit(0);
}

class Writer {
 public:
  Writer(const Settings& settings) : _settings(settings), _layout(settings.run) {}

  int run() {
    (void)prctl(PR_SET_NAME, "zt-writer", 0, 0, 0);
    // Children are reaped by the kernel; the supervisor finds the ones that
    // hang by their names.
    (void)signal(SIGCHLD, SIG_IGN);
    Random rng(mix(_settings.seed, _settings.id));
    const unsigned threads = static_cast<unsigned>(rng.between(2, 6));
    _toggler = (_settings.faults & kFname) != 0 && rng.chance(50);
    _process.id = _settings.id;
    _process.pid = static_cast<long>(::getpid());
    _process.journal = openAppend(_layout.journal(_settings.id));
    if (_process.journal < 0) {
      std::perror("zel_torture writer: journal");
      return 3;
    }
    _process.wrapper = Zel::LoggingWrapper::getInstance();
    _process.note("P " + std::to_string(_settings.id) + " " + std::to_string(_process.pid) + " W 0 " +
                  std::to_string(threads) + " " + (_toggler ? "1" : "0"));
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) workers.emplace_back([this, t, threads] { work(t, threads); });
    for (std::thread& worker : workers) worker.join();
    _process.note("E");
    return 0;  // exit(): the library's exit flush runs
  }

 private:
  void work(unsigned thread, unsigned threads) {
    Random rng(mix(mix(_settings.seed, _settings.id), thread + 1));
    uint64_t seq = 0;
    const bool forks = (_settings.faults & kFork) != 0;
    // About two forks per second per writer, from any of its threads.
    const int64_t forkMean = 500000 * static_cast<int64_t>(threads);
    int64_t nextFork = monotonicMicros() + static_cast<int64_t>(rng.between(0, static_cast<uint64_t>(forkMean)));
    int64_t nextToggle = monotonicMicros() + static_cast<int64_t>(rng.between(100000, 1500000));
    bool other = false;
    for (;;) {
      const int64_t now = monotonicMicros();
      if (now >= _settings.until) break;
      if (forks && now >= nextFork) {
        forkChild(rng);
        nextFork = now + static_cast<int64_t>(rng.between(1, 2 * static_cast<uint64_t>(forkMean)));
      }
      // Only thread 0 switches: set_fname is meant to be called by one thread.
      if (_toggler && thread == 0 && now >= nextToggle) {
        other = !other;
        const std::string path = other ? _layout.otherFile() : _layout.liveFile();
        _process.note("N 0 " + path);
        _process.wrapper->set_fname(path);
        nextToggle = now + static_cast<int64_t>(rng.between(100000, 1500000));
      }
      _process.logBatch(thread, seq, static_cast<unsigned>(rng.between(1, 64)));
      if (rng.chance(70)) _process.flush(thread);
      // About a thousand records a second per thread, in bursts: enough to
      // rotate the 64 KiB files several times a second, little enough that
      // a run's files stay far below the memory of the machine.
      if (rng.chance(90)) sleepMicros(static_cast<int64_t>(rng.between(2000, 60000)));
    }
    _process.logBatch(thread, seq, static_cast<unsigned>(rng.between(1, 64)));
    _process.flush(thread);
  }

  void forkChild(Random& rng) {
    const unsigned number = _children.fetch_add(1) + 1;
    if (number >= 1000) return;
    const unsigned childId = _settings.id * 1000 + number;
    const uint64_t roll = rng.between(0, 99);
    const ChildKind kind = roll < 45 ? kLoggingChild : (roll < 80 ? kSleepingChild : kExitingChild);
    // A sleeper lives to the end of the run or for a few seconds: it holds
    // whatever descriptors it inherited all that time without ever logging.
    const int64_t sleepUntil = rng.chance(50) ? _settings.until + 2000000
                                              : monotonicMicros() + static_cast<int64_t>(rng.between(500000, 8000000));
    const pid_t pid = ::fork();
    if (pid < 0) return;
    if (pid == 0) {
      switch (kind) {
        case kLoggingChild:
          loggingChild(_settings, _layout, childId);
        case kSleepingChild:
          (void)prctl(PR_SET_NAME, "zt-sleeper", 0, 0, 0);
          while (monotonicMicros() < sleepUntil) sleepMicros(50000);
          _exit(0);
        case kExitingChild:
          _exit(0);
      }
      _exit(0);
    }
    static const char* const kKindNames[] = {"log", "sleep", "exit"};
    _process.note("C " + std::to_string(childId) + " " + std::to_string(pid) + " " + kKindNames[kind]);
  }

  Settings _settings;
  Layout _layout;
  Process _process;
  bool _toggler = false;
  std::atomic<unsigned> _children{0};
};

}  // namespace

// argv: --writer ID SEED UNTIL FAULTS RUNDIR
int writerMain(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "zel_torture: --writer takes ID SEED UNTIL FAULTS RUNDIR\n");
    return 2;
  }
  // Ends with the supervisor, whatever becomes of it.
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  Settings settings;
  settings.id = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
  settings.seed = std::strtoull(argv[3], nullptr, 10);
  settings.until = std::strtoll(argv[4], nullptr, 10);
  settings.faults = static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10));
  settings.run = argv[6];
  if (getppid() == 1) return 3;  // the supervisor is already gone
  Writer writer(settings);
  return writer.run();
}

}  // namespace ZelTorture

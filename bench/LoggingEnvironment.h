// LoggingEnvironment.h - the environment a benchmark's logging wrapper is
// made in.
//
// A wrapper reads its settings from the environment when it is made. The
// benchmarks make theirs with nothing but TMPDIR set (the default limits,
// level and file name), whatever the shell running them has exported, and
// put the environment back afterwards:
//
//   { ZelBench::LoggingEnvironment env(dir); wrapper = new LoggingWrapper(); }
//
// Header-only, outside namespace Zel: the baseline contender's sources are
// compiled with Zel renamed and include it too.
#ifndef ZEL_BENCH_LOGGING_ENVIRONMENT_H
#define ZEL_BENCH_LOGGING_ENVIRONMENT_H

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ZelBench {

class LoggingEnvironment {
 public:
  explicit LoggingEnvironment(const std::string& dir) {
    for (const char* name : {"TMPDIR", "ZEL_LOGGING_FNAME", "ZEL_LOGGING_LEVEL", "ZEL_LOGGING_FMAXSIZE",
                             "ZEL_LOGGING_FMAXCOUNT", "ZEL_LOGGING_CRASH_FLUSH", "TAV_ENV"}) {
      const char* value = std::getenv(name);
      _saved.emplace_back(name, value != nullptr ? std::make_unique<std::string>(value) : nullptr);
      unsetenv(name);
    }
    setenv("TMPDIR", dir.c_str(), 1);
  }
  ~LoggingEnvironment() {
    for (const auto& entry : _saved) {
      if (entry.second) {
        setenv(entry.first.c_str(), entry.second->c_str(), 1);
      } else {
        unsetenv(entry.first.c_str());
      }
    }
  }
  LoggingEnvironment(const LoggingEnvironment&) = delete;
  LoggingEnvironment& operator=(const LoggingEnvironment&) = delete;

 private:
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> _saved;
};

}  // namespace ZelBench

#endif  // ZEL_BENCH_LOGGING_ENVIRONMENT_H

// LoggingBench.cpp - records/s of the logging wrapper's local-file path, side
// by side with peer logging libraries and a hand-written floor.
//
// Every contender writes the same record: an error (level 3) from function
// "signal" with the text "Failed to write signal. Errno <n> on <target>", one
// line per record in a file that is rotated at 5 MiB keeping 5 files and is
// never flushed per record. Each contender writes into its own sub-directory
// of one fresh temporary directory, which is removed when the process ends.
//
//   BM_Logging_LogPrintf      Zel::LoggingWrapper::log_printf
//   BM_Logging_LogPrintfBaseline  the same record through the wrapper of the
//                             commit before the shared log file (stdio
//                             buffer, no cross-process coordination), built
//                             from that commit's sources (bench/baseline/)
//   BM_Logging_FourProcessesOneFile  four processes writing one file with
//                             the default limits, 20000 records each;
//                             records/s of the four together (wall time)
//   BM_Logging_FourProcessesOneFileBaseline  the same with the baseline
//                             wrapper (which loses and tears records there)
//   BM_Logging_Spdlog         spdlog logger on a rotating_file_sink_mt
//   BM_Logging_PocoFileChannel  Poco::Logger -> PatternFormatter -> FileChannel
//   BM_Logging_Glog           glog LOG(ERROR) into its own file only
//   BM_Logging_Floor          the least work a record of this format needs:
//                             message formatted outside an error-checking
//                             mutex (the lock kind the wrapper must use), wall
//                             clock read and local time cached per second
//                             under it, stamp and line composed into stack
//                             buffers, one fstat, one buffered write
//   BM_Logging_FloorSnprintf  the same with the two formats done by snprintf
//   BM_Logging_FloorNoFstat   the floor without the fstat (size counted in
//                             memory), to show what the per-record fstat costs
//
// Run at 1 and 2 threads on real time; items_per_second is records/s of all
// threads together (the dropped record is timed on CPU time). Further benchmarks: a record dropped by the level filter,
// trace_v2_printf into a no-op version 2 interface, trace_printf into the
// file, and heap allocations per written record (counter allocs_per_record,
// counted by the malloc hook below).
#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <glog/logging.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#ifdef ZEL_BENCH_HAVE_BASELINE
#include "BaselineLogging.h"
#endif

#include <zel/LoggingWrapper.h>

#include "LoggingEnvironment.h"

// --- heap allocation counting ---------------------------------------------
//
// The binary replaces malloc, calloc and realloc with pass-throughs to the C
// library's allocator that count calls made on a thread that has switched
// counting on. operator new goes through malloc, so C++ allocations are
// counted too. Counting off costs one thread-local load per allocation.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace {
thread_local bool tCountAllocations = false;
thread_local uint64_t tAllocations = 0;
}  // namespace

extern "C" void* malloc(size_t size) noexcept {
  if (tCountAllocations) ++tAllocations;
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) noexcept {
  if (tCountAllocations) ++tAllocations;
  return __libc_calloc(count, size);
}

extern "C" void* realloc(void* pointer, size_t size) noexcept {
  if (tCountAllocations) ++tAllocations;
  return __libc_realloc(pointer, size);
}

namespace {

// Counts the allocations of the calling thread while in scope.
class AllocationCounter {
 public:
  AllocationCounter() : _start(tAllocations) { tCountAllocations = true; }
  ~AllocationCounter() { tCountAllocations = false; }
  uint64_t count() const { return tAllocations - _start; }

 private:
  uint64_t _start;
};

// --- the record -----------------------------------------------------------

const char* const kFunction = "signal";
const char* const kFormat = "Failed to write signal. Errno %d on %s";
const char* const kTarget = "wake-up pipe 17";
const unsigned kLevel = 3;
const unsigned kFacility = 1;
const size_t kMaxFileSize = 5 * 1024 * 1024;
const int kMaxFiles = 5;
// Where and on which line the component's debug reports are known by.
const char* const kTraceFile = "src/common/src/PipeExt";
const uint32_t kTraceLine = 143;

// --- temporary directories --------------------------------------------------

// One fresh directory per process under $TMPDIR (or /tmp), holding one
// sub-directory per contender; removed, with everything in it, at exit
// unless ZEL_BENCH_KEEP_FILES is set (to look at what each contender wrote).
// Contenders register clean-up steps (closing their files) that run first.
class BenchRoot {
 public:
  static BenchRoot& get() {
    static BenchRoot root;
    return root;
  }
  std::string subdir(const char* name) {
    const std::string path = _path + "/" + name;
    std::filesystem::create_directories(path);
    return path;
  }
  void atCleanup(std::function<void()> step) {
    std::lock_guard<std::mutex> guard(_mutex);
    _cleanup.push_back(std::move(step));
  }
  ~BenchRoot() {
    for (auto it = _cleanup.rbegin(); it != _cleanup.rend(); ++it) (*it)();
    if (std::getenv("ZEL_BENCH_KEEP_FILES") != nullptr) {
      std::fprintf(stderr, "zel_bench: files kept in %s\n", _path.c_str());
      return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }

 private:
  BenchRoot() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zel-bench.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
      std::perror("zel_bench: mkdtemp");
      std::abort();
    }
    _path = buffer.data();
  }
  std::string _path;
  std::mutex _mutex;
  std::vector<std::function<void()>> _cleanup;
};

// Size of a file, or 0 when it cannot be read.
off_t fileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// --- contender: the logging wrapper ------------------------------------------

// A wrapper of its own whose log directory is `dir`, built with the default
// settings whatever the caller's environment says. Wrappers are never
// deleted: the destructor would destroy the lock all wrappers share.
Zel::LoggingWrapper* makeWrapper(const std::string& dir) {
  ZelBench::LoggingEnvironment environment(dir);
  return new Zel::LoggingWrapper();
}

Zel::LoggingWrapper* fileWrapper() {
  static Zel::LoggingWrapper* wrapper = makeWrapper(BenchRoot::get().subdir("zel"));
  return wrapper;
}

Zel::LoggingWrapper* traceFileWrapper() {
  static Zel::LoggingWrapper* wrapper = makeWrapper(BenchRoot::get().subdir("zel-trace"));
  return wrapper;
}

// A wrapper whose level (2) makes the filter refuse error records.
Zel::LoggingWrapper* droppingWrapper() {
  static Zel::LoggingWrapper* wrapper = [] {
    Zel::LoggingWrapper* w = makeWrapper(BenchRoot::get().subdir("zel-dropped"));
    w->set_level(2);
    return w;
  }();
  return wrapper;
}

extern "C" ZelReturnT noopRegisterSubsystem(const char*, ZelMwSpiTraceSubsystemHandle_2T* handle) {
  static ZelMwSpiTraceSubsystemHandle_2T next = 1;
  *handle = next++;
  return ZelOk;
}

extern "C" void noopVtrace(ZelMwSpiTraceSubsystemHandle_2T, ZelMwSpiTraceLevelT, const char*, uint32_t, const char*,
                           const char*, va_list) {}

// A wrapper tracing into a version 2 interface that does nothing.
Zel::LoggingWrapper* traceV2Wrapper() {
  static ZelMwSpiTrace_2 noopInterface = {{"zel_bench", "trace", "2"}, noopRegisterSubsystem, noopVtrace};
  static Zel::LoggingWrapper* wrapper = [] {
    Zel::LoggingWrapper* w = makeWrapper(BenchRoot::get().subdir("zel-trace-v2"));
    w->set_trace_spi(&noopInterface.header);
    return w;
  }();
  return wrapper;
}

// --- contender: spdlog -------------------------------------------------------

spdlog::logger* spdlogLogger() {
  static std::shared_ptr<spdlog::logger> logger = [] {
    const std::string dir = BenchRoot::get().subdir("spdlog");
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(dir + "/spdlog.log", kMaxFileSize, kMaxFiles);
    // The logger's name stands for the function name of the wrapper's line.
    auto l = std::make_shared<spdlog::logger>(kFunction, sink);
    l->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %L %-25n %v");
    l->set_level(spdlog::level::trace);
    l->flush_on(spdlog::level::off);
    return l;
  }();
  return logger.get();
}

// --- contender: POCO -----------------------------------------------------------

Poco::Logger* pocoLogger() {
  static Poco::Logger* logger = [] {
    const std::string dir = BenchRoot::get().subdir("poco");
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(dir + "/poco.log"));
    file->setProperty("rotation", "5 M");
    file->setProperty("archive", "number");
    file->setProperty("purgeCount", "5");
    file->setProperty("flush", "false");
    // The logger's name (%v, padded to 25) stands for the function name.
    Poco::AutoPtr<Poco::PatternFormatter> pattern(new Poco::PatternFormatter("%Y-%m-%dT%H:%M:%S.%i%z %q %v[25] %t"));
    pattern->setProperty("times", "local");
    Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(pattern, file));
    Poco::Logger& l = Poco::Logger::create(kFunction, channel, Poco::Message::PRIO_TRACE);
    BenchRoot::get().atCleanup([file]() mutable { file->close(); });
    return &l;
  }();
  return logger;
}

// --- contender: glog -----------------------------------------------------------

// glog writes an error record into the files of every severity up to error;
// only the INFO file is kept so each record is written once. glog names a
// new file after the second it was made in and refuses to reuse a name, so
// at these rates two size rotations within one second would make it drop
// records; with names without time stamps it reopens its one file instead,
// and trimGlogFile() truncates that file between runs to bound its size.
std::string glogFile() {
  static const std::string file = [] {
    const std::string dir = BenchRoot::get().subdir("glog");
    FLAGS_log_dir = dir;
    FLAGS_logtostderr = false;
    FLAGS_alsologtostderr = false;
    FLAGS_stderrthreshold = google::GLOG_FATAL;
    FLAGS_logbuflevel = google::GLOG_ERROR;  // buffer error records, no flush per record
    FLAGS_max_log_size = 5;                  // MiB
    FLAGS_timestamp_in_logfile_name = false;
    google::InitGoogleLogging("zel_bench");
    const std::string base = dir + "/glog.log";
    google::SetLogDestination(google::GLOG_INFO, base.c_str());
    google::SetLogDestination(google::GLOG_WARNING, "");
    google::SetLogDestination(google::GLOG_ERROR, "");
    google::SetLogDestination(google::GLOG_FATAL, "");
    BenchRoot::get().atCleanup([] { google::ShutdownGoogleLogging(); });
    return base;
  }();
  return file;
}

void trimGlogFile() {
  if (fileSize(glogFile()) > static_cast<off_t>(kMaxFiles * kMaxFileSize)) (void)::truncate(glogFile().c_str(), 0);
}

// --- contender: the floor --------------------------------------------------------

// An error-checking mutex, the kind the wrapper's contract asks for, that a
// thread finding it taken retries for a moment before sleeping on it, as the
// wrapper's record lock does: the floor gets every trick the wrapper uses.
class SpinThenBlockMutex {
 public:
  SpinThenBlockMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~SpinThenBlockMutex() { pthread_mutex_destroy(&_mutex); }
  void lock() {
    for (int i = 0; i < 200; ++i) {
      if (pthread_mutex_trylock(&_mutex) == 0) return;
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#endif
    }
    pthread_mutex_lock(&_mutex);
  }
  void unlock() { pthread_mutex_unlock(&_mutex); }

 private:
  pthread_mutex_t _mutex;
};

// The least work a record of the wrapper's file format needs, written by hand
// with no configuration, no sink choice and no error handling, with the
// wrapper's stdio buffer size for a 5 MiB limit. Rotation is a plain shift of
// numbered files, as rare as the wrapper's.
class FloorLog {
 public:
  enum Mode { kFast, kSnprintf, kNoFstat };

  FloorLog(const std::string& dir, Mode mode) : _path(dir + "/floor.log"), _mode(mode) { open(); }
  ~FloorLog() {
    if (_file != nullptr) fclose(_file);  // before the buffer goes
  }

  void write(const char* function, unsigned level, const char* format, ...) __attribute__((format(printf, 4, 5))) {
    char message[800];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);

    char record[1000];
    std::lock_guard<SpinThenBlockMutex> guard(_mutex);
    struct timeval now;
    gettimeofday(&now, nullptr);
    refreshSecond(now.tv_sec);
    size_t length;
    if (_mode == kSnprintf) {
      length = composeWithSnprintf(record, now, level, function, message);
    } else {
      length = composeByHand(record, now, level, function, message);
    }
    record[length++] = '\n';
    if (_mode == kNoFstat) {
      if (_written > kMaxFileSize) rotate();
      _written += length;
    } else {
      struct stat st;
      if (fstat(fileno(_file), &st) == 0 && static_cast<size_t>(st.st_size) > kMaxFileSize) rotate();
    }
    fwrite_unlocked(record, 1, length, _file);
  }

 private:
  static const char* tag(unsigned level) {
    static const char* const tags[] = {"EM", "AL", "CR", "ER", "WA", "NO", "IN"};
    return level < 7 ? tags[level] : "TR";
  }

  void open() {
    _file = fopen(_path.c_str(), "a");
    setvbuf(_file, _buffer.get(), _IOFBF, kBufferSize);
  }

  // Shifts floor.log.N to N+1 and floor.log to .1, dropping the oldest. Each
  // rename goes to a free name: renaming onto an existing file would make the
  // file system start writing the renamed file back at once, which the
  // wrapper's rotation (always onto a new number) does not cause either.
  void rotate() {
    fclose(_file);
    unlink((_path + "." + std::to_string(kMaxFiles)).c_str());
    for (int i = kMaxFiles - 1; i >= 1; --i) {
      rename((_path + "." + std::to_string(i)).c_str(), (_path + "." + std::to_string(i + 1)).c_str());
    }
    rename(_path.c_str(), (_path + ".1").c_str());
    _written = 0;
    open();
  }

  // Broken-down local time once per second, and the stamp's text before and
  // after the fraction.
  void refreshSecond(time_t second) {
    if (second == _second) return;
    _second = second;
    localtime_r(&second, &_local);
    _prefixLength = snprintf(_prefix, sizeof(_prefix), "%4d-%02d-%02dT%02d:%02d:%02d.", _local.tm_year + 1900,
                             _local.tm_mon + 1, _local.tm_mday, _local.tm_hour, _local.tm_min, _local.tm_sec);
    const long minutes = labs(_local.tm_gmtoff) / 60;
    _suffixLength = snprintf(_suffix, sizeof(_suffix), "%c%02ld:%02ld", _local.tm_gmtoff >= 0 ? '+' : '-',
                             minutes / 60, minutes % 60);
  }

  size_t composeWithSnprintf(char* record, const struct timeval& now, unsigned level, const char* function,
                             const char* message) {
    char fraction[4];
    snprintf(fraction, sizeof(fraction), "%ld", static_cast<long>(now.tv_usec));
    const long minutes = labs(_local.tm_gmtoff) / 60;
    char stamp[30];
    // Cut at 29 characters, as the wrapper's stamp is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
    snprintf(stamp, sizeof(stamp), "%4d-%02d-%02dT%02d:%02d:%02d.%s%c%02ld:%02ld", _local.tm_year + 1900,
             _local.tm_mon + 1, _local.tm_mday, _local.tm_hour, _local.tm_min, _local.tm_sec, fraction,
             _local.tm_gmtoff >= 0 ? '+' : '-', minutes / 60, minutes % 60);
#pragma GCC diagnostic pop
    const int n = snprintf(record, 1000, "%s %2s %-25s %s", stamp, tag(level), function, message);
    return std::min<size_t>(static_cast<size_t>(n), 999);
  }

  size_t composeByHand(char* record, const struct timeval& now, unsigned level, const char* function,
                       const char* message) {
    char* out = record;
    std::memcpy(out, _prefix, static_cast<size_t>(_prefixLength));
    out += _prefixLength;
    // First three digits of the microseconds as a plain number.
    char digits[8];
    int count = 0;
    unsigned long usec = static_cast<unsigned long>(now.tv_usec);
    do {
      digits[count++] = static_cast<char>('0' + usec % 10);
      usec /= 10;
    } while (usec != 0);
    for (int i = 0; i < 3 && i < count; ++i) *out++ = digits[count - 1 - i];
    std::memcpy(out, _suffix, static_cast<size_t>(_suffixLength));
    out += _suffixLength;
    *out++ = ' ';
    std::memcpy(out, tag(level), 2);
    out += 2;
    *out++ = ' ';
    const size_t functionLength = strlen(function);
    std::memcpy(out, function, functionLength);
    out += functionLength;
    for (size_t i = functionLength; i < 25; ++i) *out++ = ' ';
    *out++ = ' ';
    // The stamp and the fixed fields stay far below the 999 characters of a
    // record for a function name of this size; only the message is cut.
    const size_t room = 999 - static_cast<size_t>(out - record);
    const size_t messageLength = strnlen(message, room);
    std::memcpy(out, message, messageLength);
    return static_cast<size_t>(out - record) + messageLength;
  }

  static const size_t kBufferSize = 64 * 1024;

  SpinThenBlockMutex _mutex;
  const std::string _path;
  std::unique_ptr<char[]> _buffer{new char[kBufferSize]};
  const Mode _mode;
  FILE* _file = nullptr;
  size_t _written = 0;
  time_t _second = -1;
  struct tm _local = {};
  char _prefix[64] = {};
  int _prefixLength = 0;
  char _suffix[16] = {};
  int _suffixLength = 0;
};

FloorLog* floorLog(FloorLog::Mode mode) {
  static FloorLog fast(BenchRoot::get().subdir("floor"), FloorLog::kFast);
  static FloorLog viaSnprintf(BenchRoot::get().subdir("floor-snprintf"), FloorLog::kSnprintf);
  static FloorLog noFstat(BenchRoot::get().subdir("floor-nofstat"), FloorLog::kNoFstat);
  switch (mode) {
    case FloorLog::kSnprintf: return &viaSnprintf;
    case FloorLog::kNoFstat: return &noFstat;
    default: return &fast;
  }
}

// --- contender: the baseline wrapper --------------------------------------------

#ifdef ZEL_BENCH_HAVE_BASELINE
void* baselineWrapper() {
  static void* wrapper = ZelBench::baselineMakeWrapper(BenchRoot::get().subdir("zel-baseline").c_str());
  return wrapper;
}
#endif

// --- several processes, one file -------------------------------------------------

const int kRecordsPerProcess = 20000;
const int kWriterProcesses = 4;

// Removes the log files of `dir` so that each run starts from nothing.
void emptyDirectory(const std::string& dir) {
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* entry = readdir(d)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") (void)unlink((dir + "/" + name).c_str());
    }
    closedir(d);
  }
}

// One run: the writer processes are forked and make their wrappers first,
// then start together at a gate; the time is from the gate to the last exit.
template <typename Make, typename Write, typename Close>
double fourProcessesSeconds(const std::string& dir, Make make, Write write, Close close) {
  emptyDirectory(dir);
  int gate[2];
  if (pipe(gate) != 0) return 0;
  std::vector<pid_t> children;
  for (int i = 0; i < kWriterProcesses; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      ::close(gate[1]);
      void* wrapper = make(dir);
      char byte;
      while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {
      }
      for (int n = 0; n < kRecordsPerProcess; ++n) write(wrapper, n);
      close(wrapper);
      _exit(0);
    }
    children.push_back(pid);
  }
  usleep(50000);  // every writer has made its wrapper
  const auto start = std::chrono::steady_clock::now();
  ::close(gate[1]);
  for (pid_t pid : children) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  const auto end = std::chrono::steady_clock::now();
  ::close(gate[0]);
  return std::chrono::duration<double>(end - start).count();
}

template <typename Make, typename Write, typename Close>
void fourProcessesBenchmark(benchmark::State& state, const std::string& dir, Make make, Write write, Close close) {
  for (auto _ : state) state.SetIterationTime(fourProcessesSeconds(dir, make, write, close));
  state.SetItemsProcessed(state.iterations() * kWriterProcesses * kRecordsPerProcess);
}

// --- the benchmarks -----------------------------------------------------------------

void setRecordsProcessed(benchmark::State& state) { state.SetItemsProcessed(state.iterations()); }

void BM_Logging_LogPrintf(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = fileWrapper();
  const int error = EAGAIN;
  for (auto _ : state) wrapper->log_printf(kFunction, kLevel, kFacility, kFormat, error, kTarget);
  setRecordsProcessed(state);
}

#ifdef ZEL_BENCH_HAVE_BASELINE
void BM_Logging_LogPrintfBaseline(benchmark::State& state) {
  void* wrapper = baselineWrapper();
  const int error = EAGAIN;
  for (auto _ : state) ZelBench::baselineLogRecord(wrapper, error, kTarget);
  setRecordsProcessed(state);
}
#endif

void BM_Logging_FourProcessesOneFile(benchmark::State& state) {
  fourProcessesBenchmark(
      state, BenchRoot::get().subdir("zel-4proc"), [](const std::string& dir) -> void* { return makeWrapper(dir); },
      [](void* w, int) { static_cast<Zel::LoggingWrapper*>(w)->log_printf(kFunction, kLevel, kFacility, kFormat, EAGAIN, kTarget); },
      [](void* w) { static_cast<Zel::LoggingWrapper*>(w)->close(); });
}

#ifdef ZEL_BENCH_HAVE_BASELINE
void BM_Logging_FourProcessesOneFileBaseline(benchmark::State& state) {
  fourProcessesBenchmark(
      state, BenchRoot::get().subdir("zel-4proc-baseline"),
      [](const std::string& dir) { return ZelBench::baselineMakeWrapper(dir.c_str()); },
      [](void* w, int) { ZelBench::baselineLogRecord(w, EAGAIN, kTarget); },
      [](void* w) { ZelBench::baselineClose(w); });
}
#endif

void BM_Logging_Spdlog(benchmark::State& state) {
  spdlog::logger* logger = spdlogLogger();
  const int error = EAGAIN;
  for (auto _ : state) logger->error("Failed to write signal. Errno {} on {}", error, kTarget);
  setRecordsProcessed(state);
}

// Poco::format takes %s from a std::string only.
const std::string& pocoFormat() {
  static const std::string format = kFormat;
  return format;
}
const std::string& pocoTarget() {
  static const std::string target = kTarget;
  return target;
}

void BM_Logging_PocoFileChannel(benchmark::State& state) {
  const std::string& format = pocoFormat();
  const std::string& target = pocoTarget();
  Poco::Logger* logger = pocoLogger();
  const int error = EAGAIN;
  for (auto _ : state) logger->error(format, error, target);
  setRecordsProcessed(state);
}

void BM_Logging_Glog(benchmark::State& state) {
  (void)glogFile();
  if (state.thread_index() == 0) trimGlogFile();
  const int error = EAGAIN;
  for (auto _ : state) LOG(ERROR) << "Failed to write signal. Errno " << error << " on " << kTarget;
  setRecordsProcessed(state);
}

void floorBenchmark(benchmark::State& state, FloorLog::Mode mode) {
  FloorLog* log = floorLog(mode);
  const int error = EAGAIN;
  for (auto _ : state) log->write(kFunction, kLevel, kFormat, error, kTarget);
  setRecordsProcessed(state);
}

void BM_Logging_Floor(benchmark::State& state) { floorBenchmark(state, FloorLog::kFast); }
void BM_Logging_FloorSnprintf(benchmark::State& state) { floorBenchmark(state, FloorLog::kSnprintf); }
void BM_Logging_FloorNoFstat(benchmark::State& state) { floorBenchmark(state, FloorLog::kNoFstat); }

// A record refused by the level filter: the caller's test and nothing else.
void BM_Logging_DroppedRecord(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = droppingWrapper();
  const int error = EAGAIN;
  for (auto _ : state) {
    if (wrapper->isSaLoggingAllowed(1u << kLevel, kLevel))
      wrapper->log_printf(kFunction, kLevel, kFacility, kFormat, error, kTarget);
  }
  setRecordsProcessed(state);
}

void BM_Logging_TraceV2NoOp(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = traceV2Wrapper();
  const int error = EAGAIN;
  for (auto _ : state)
    wrapper->trace_v2_printf(Zel::Trace::Common, 14, kTraceFile, kFunction, kTraceLine, kFormat, error, kTarget);
  setRecordsProcessed(state);
}

void BM_Logging_TracePrintf(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = traceFileWrapper();
  const int error = EAGAIN;
  for (auto _ : state) wrapper->trace_printf(kTraceFile, kFunction, kTraceLine, 8, 0, kFormat, error, kTarget);
  setRecordsProcessed(state);
}

// Writes records until the live file is small enough that the measured ones
// cannot reach the rotation: a rotation scans the directory and reopens the
// file, which allocates, but happens once per 5 MiB, not per record.
template <typename WriteRecord>
void stayClearOfRotation(const std::string& liveFile, WriteRecord write) {
  while (fileSize(liveFile) > static_cast<off_t>(2 * 1024 * 1024)) write();
}

// Heap allocations per written record (counter allocs_per_record). The
// measured records stay clear of the rotation, so the counter shows what a
// record itself costs.
template <typename WriteRecord>
void allocationBenchmark(benchmark::State& state, const std::string& liveFile, WriteRecord write) {
  if (!liveFile.empty()) stayClearOfRotation(liveFile, write);
  AllocationCounter counter;
  for (auto _ : state) write();
  const uint64_t allocations = counter.count();
  state.counters["allocs_per_record"] =
      benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
  setRecordsProcessed(state);
}

const int64_t kAllocationRecords = 20000;  // about 2.3 MB of lines

void BM_Logging_AllocsLogPrintf(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = fileWrapper();
  allocationBenchmark(state, wrapper->get_fname(),
                      [wrapper] { wrapper->log_printf(kFunction, kLevel, kFacility, kFormat, EAGAIN, kTarget); });
}

void BM_Logging_AllocsTracePrintf(benchmark::State& state) {
  Zel::LoggingWrapper* wrapper = traceFileWrapper();
  allocationBenchmark(state, wrapper->get_fname(), [wrapper] {
    wrapper->trace_printf(kTraceFile, kFunction, kTraceLine, 8, 0, kFormat, EAGAIN, kTarget);
  });
}

void BM_Logging_AllocsSpdlog(benchmark::State& state) {
  spdlog::logger* logger = spdlogLogger();
  allocationBenchmark(state, "", [logger] { logger->error("Failed to write signal. Errno {} on {}", EAGAIN, kTarget); });
}

void BM_Logging_AllocsPocoFileChannel(benchmark::State& state) {
  Poco::Logger* logger = pocoLogger();
  allocationBenchmark(state, "", [logger] { logger->error(pocoFormat(), EAGAIN, pocoTarget()); });
}

void BM_Logging_AllocsGlog(benchmark::State& state) {
  (void)glogFile();
  allocationBenchmark(state, "",
                      [] { LOG(ERROR) << "Failed to write signal. Errno " << EAGAIN << " on " << kTarget; });
}

}  // namespace

BENCHMARK(BM_Logging_LogPrintf)->Threads(1)->Threads(2)->UseRealTime();
#ifdef ZEL_BENCH_HAVE_BASELINE
BENCHMARK(BM_Logging_LogPrintfBaseline)->Threads(1)->Threads(2)->UseRealTime();
#endif
BENCHMARK(BM_Logging_FourProcessesOneFile)->UseManualTime()->Iterations(5);
#ifdef ZEL_BENCH_HAVE_BASELINE
BENCHMARK(BM_Logging_FourProcessesOneFileBaseline)->UseManualTime()->Iterations(5);
#endif
BENCHMARK(BM_Logging_Floor)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_FloorSnprintf)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_FloorNoFstat)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_Spdlog)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_PocoFileChannel)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_Glog)->Threads(1)->Threads(2)->UseRealTime();
// A dropped record takes a few cycles: measured on CPU time, so that being
// preempted on a busy machine does not count as its cost.
BENCHMARK(BM_Logging_DroppedRecord)->Threads(1)->Threads(2);
BENCHMARK(BM_Logging_TraceV2NoOp)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_TracePrintf)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_Logging_AllocsLogPrintf)->Iterations(kAllocationRecords);
BENCHMARK(BM_Logging_AllocsTracePrintf)->Iterations(kAllocationRecords);
BENCHMARK(BM_Logging_AllocsSpdlog)->Iterations(kAllocationRecords);
BENCHMARK(BM_Logging_AllocsPocoFileChannel)->Iterations(kAllocationRecords);
BENCHMARK(BM_Logging_AllocsGlog)->Iterations(kAllocationRecords);

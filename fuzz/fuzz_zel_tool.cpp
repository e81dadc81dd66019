// Fuzzes the zel tool's commands in-process: arbitrary arguments (and, for
// `zel log`, arbitrary standard input) go to the command functions the tool's
// main() dispatches to, with standard output and standard error captured.
// Checked: the status is 0, 1 or 2; a status 2 says why on standard error and
// prints no result; `xpath split` accepts only paths of "/"-separated steps
// with a type name; and everything `zel log` writes to the log file is free
// of control characters other than the line break ending each record;
// `zel log show` reads that log back through its filters. The
// log goes to a temporary directory made at start-up, kept small by rotation
// and removed at exit.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "FuzzSupport.h"
#include <zel/XPathUtil.h>

namespace {

std::string logDirectory;

void removeLogDirectory() {
  if (logDirectory.empty()) return;
  if (DIR* dir = ::opendir(logDirectory.c_str())) {
    while (struct dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") ::unlink((logDirectory + "/" + name).c_str());
    }
    ::closedir(dir);
  }
  ::rmdir(logDirectory.c_str());
}

// Swaps a stream's buffer for a string buffer while alive.
class Capture {
 public:
  explicit Capture(std::ostream& stream) : _stream(stream), _saved(stream.rdbuf(_buffer.rdbuf())) {}
  ~Capture() {
    _stream.rdbuf(_saved);
    _stream.clear();
  }
  std::string text() const { return _buffer.str(); }

 private:
  std::ostream& _stream;
  std::ostringstream _buffer;
  std::streambuf* _saved;
};

bool pathExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// What is on disk of the live log file so far (the wrapper does not flush
// record by record, so the tail may still be in its buffer).
void checkLogFile() {
  std::ifstream file(logDirectory + "/zel.log", std::ios::binary);
  std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  for (size_t i = 0; i < content.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(content[i]);
    FUZZ_CHECK(byte == '\n' || (byte >= 0x20 && byte != 0x7f), "a control character in the log file");
    FUZZ_CHECK(!(byte == 0xc2 && i + 1 < content.size() && static_cast<unsigned char>(content[i + 1]) >= 0x80 &&
                 static_cast<unsigned char>(content[i + 1]) <= 0x9f),
               "a C1 control in the log file");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/zel-fuzz-tool.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  logDirectory = buffer.data();
  std::atexit(removeLogDirectory);
  // Read once, when the logging singleton is made by the first `zel log`.
  ::setenv("TMPDIR", logDirectory.c_str(), 1);
  ::unsetenv("ZEL_LOGGING_FNAME");
  ::unsetenv("TAV_ENV");
  ::setenv("ZEL_LOGGING_LEVEL", "8", 1);  // every level is written, debug records too
  ::setenv("ZEL_LOGGING_FMAXSIZE", "65536", 1);
  ::setenv("ZEL_LOGGING_FMAXCOUNT", "2", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelFuzz::Reader reader(data, size);
  const unsigned command = reader.byte() % 5;
  const unsigned count = reader.byte() % 8;
  ZelTool::Args args;
  for (unsigned i = 0; i < count && !reader.empty(); ++i) args.push_back(reader.until('\0'));
  const std::string input = reader.rest();

  // `config get`, `log -f FILE` and `log show PATH` read files: only texts
  // that name nothing, so that the run never reads devices or the machine's
  // files (`log show` without a PATH reads the run's own log). `log follow`
  // and `log ship` wait for news without end and are not run here.
  if (command == 0 && !args.empty() && (args[0] == "follow" || args[0] == "ship")) return 0;
  if (command == 3 || command == 0)
    for (const std::string& arg : args)
      if (!arg.empty() && pathExists(arg)) return 0;

  int status = -1;
  std::string out;
  std::string err;
  {
    Capture captureOut(std::cout);
    Capture captureErr(std::cerr);
    std::istringstream in(input);
    switch (command) {
      case 0:
        // The wrapper stays open: a closed one would write nothing more in
        // this process.
        status = ZelTool::runLogFrom(args, in, false);
        break;
      case 1:
        status = ZelTool::runDn(args);
        break;
      case 2:
        status = ZelTool::runXPath(args);
        break;
      case 3:
        status = ZelTool::runConfig(args);
        break;
      default:
        status = ZelTool::runStrerror(args);
        break;
    }
    out = captureOut.text();
    err = captureErr.text();
  }

  FUZZ_CHECK(status == ZelTool::ExitOk || status == ZelTool::ExitNegative || status == ZelTool::ExitError,
             "exit status " + std::to_string(status));
  if (status == ZelTool::ExitError) {
    FUZZ_CHECK(!err.empty(), "status 2 without a message");
    FUZZ_CHECK(out.empty(), "status 2 with a result: " + out);
  }
  if (command == 2 && args.size() == 2 && args[0] == "split" && !ZelTool::isHelpOption(args[1]) &&
      status == ZelTool::ExitOk) {
    const std::string& path = args[1];
    FUZZ_CHECK(!path.empty() && path[0] == '/', "an instance path starts with /: " + path);
    FUZZ_CHECK(path.find("//") == std::string::npos, "no empty step: " + path);
    FUZZ_CHECK(!Zel::XPathUtil::getTypeName(path).empty(), "a type name: " + path);
    FUZZ_CHECK(err.empty(), "an accepted path without a complaint");
  }
  if (command == 0 && !(args.size() > 0 && args[0] == "show")) checkLogFile();
  return 0;
}

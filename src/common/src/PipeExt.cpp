#include <zel/PipeExt.h>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "internal/Report.h"

namespace Zel {

PipeMessage::~PipeMessage() {}

namespace {

const char kReportFile[] = "src/common/src/PipeExt";
const char kWakeUpByte = 's';
// The drain reads this many bytes per read() call.
const size_t kDrainChunk = 126;
// Used when /proc/sys/fs/pipe-max-size cannot be read: the kernel's default.
const long kDefaultPipeMaxSize = 1048576;

// The largest capacity an unprivileged process may give a pipe.
long systemPipeMaxSize() {
  long size = kDefaultPipeMaxSize;
  FILE* file = std::fopen("/proc/sys/fs/pipe-max-size", "re");
  if (file == nullptr) return size;
  long value = 0;
  if (std::fscanf(file, "%ld", &value) == 1 && value > 0) size = value;
  std::fclose(file);
  return size;
}

// Raises the capacity of the pipe behind fd towards the system maximum. The
// kernel refuses sizes beyond the user's pipe quota (EPERM) or the limit
// (EINVAL/EPERM); each refusal halves the request, down to the current size,
// at which point the pipe simply keeps it.
void raisePipeCapacity(int fd) {
  const int current = fcntl(fd, F_GETPIPE_SZ);
  if (current < 0) return;
  for (long wanted = systemPipeMaxSize(); wanted > current; wanted /= 2) {
    if (wanted > 0x40000000L) continue;  // beyond what F_SETPIPE_SZ takes as int
    if (fcntl(fd, F_SETPIPE_SZ, static_cast<int>(wanted)) >= 0) return;
  }
}

}  // namespace

PipeExt::PipeExt() { raisePipeCapacity(writeHandle()); }

PipeExt::~PipeExt() {}

void PipeExt::push(PipeMessage* message) {
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  _messages.push_back(message);
  signal();
}

void PipeExt::push_front(PipeMessage* message) {
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  _messages.push_front(message);
  signal();
}

std::list<PipeMessage*>* PipeExt::pop() {
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  if (_messages.empty()) return nullptr;
  std::list<PipeMessage*>* taken = new std::list<PipeMessage*>();
  taken->splice(taken->end(), _messages);
  clear();
  return taken;
}

bool PipeExt::empty() const {
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  return _messages.empty();
}

void PipeExt::signal() {
  // One blocking write of one byte: it either writes the byte or fails.
  if (write(writeHandle(), &kWakeUpByte, 1) != 1) {
    const int error = errno;
    internal::reportError(kReportFile, "signal", 143, "Failed to write signal. Errno %d", error);
  }
}

void PipeExt::clear() {
  const int fd = readHandle();
  // Non-blocking on every call, so the drain stops at an empty pipe even when
  // another user of the descriptor changed its flags since.
  fcntl(fd, F_SETFL, O_NONBLOCK);
  char buffer[kDrainChunk];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n == static_cast<ssize_t>(sizeof(buffer))) continue;
    if (n < 0) internal::reportDebug(kReportFile, "clear", 169, "read returned %zd", n);
    return;
  }
}

}  // namespace Zel

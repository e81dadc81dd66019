#include <zel/PipeExt.h>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "internal/Report.h"

namespace Zel {

PipeMessage::~PipeMessage() {}

namespace {

const char kReportFile[] = "src/common/src/PipeExt";
const char kWakeUpByte = 's';
// The drain reads this many bytes per read() call.
const size_t kDrainChunk = 126;
// Assumed when the kernel cannot tell a pipe's capacity: the smallest pipe it
// makes (one page), so the queue never writes more than any pipe holds.
const size_t kSmallestPipeCapacity = 4096;

// The number of bytes the pipe behind fd holds before a write blocks.
size_t pipeCapacity(int fd) {
  const int capacity = fcntl(fd, F_GETPIPE_SZ);
  return capacity > 0 ? static_cast<size_t>(capacity) : kSmallestPipeCapacity;
}

}  // namespace

PipeExt::PipeExt() : _capacity(pipeCapacity(writeHandle())), _unreadBytes(0) {}

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
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  // A full pipe is readable already, so the consumer wakes without another
  // byte; writing one would block while holding the mutex that the
  // consumer's pop() needs, and neither side would ever go on.
  if (_unreadBytes >= _capacity) return;
  // One blocking write of one byte into a pipe with room: it either writes
  // the byte at once or fails.
  if (write(writeHandle(), &kWakeUpByte, 1) != 1) {
    const int error = errno;
    internal::reportError(kReportFile, "signal", 143, "Failed to write signal. Errno %d", error);
    return;
  }
  ++_unreadBytes;
}

void PipeExt::clear() {
  Poco::ScopedLock<Poco::Mutex> guard(_mutex);
  const int fd = readHandle();
  // Non-blocking on every call, so the drain stops at an empty pipe even when
  // another user of the descriptor changed its flags since.
  fcntl(fd, F_SETFL, O_NONBLOCK);
  char buffer[kDrainChunk];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n == static_cast<ssize_t>(sizeof(buffer))) continue;
    const int error = errno;
    if (n < 0) internal::reportDebug(kReportFile, "clear", 169, "read returned %zd", n);
    // A short read or EAGAIN means the pipe is empty, and no wake-up byte
    // arrives while the mutex is held. After any other failure the bytes may
    // still be there: keep counting them, so no write can block.
    if (n >= 0 || error == EAGAIN || error == EWOULDBLOCK) _unreadBytes = 0;
    return;
  }
}

}  // namespace Zel

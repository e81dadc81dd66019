// PipeExt.h - a thread-safe message queue that wakes its consumer through a pipe.
//
// Zel::PipeExt is a queue of PipeMessage pointers joined to an anonymous pipe.
// Every push also writes one wake-up byte ("s") into the pipe, so a consumer
// thread can wait for work with poll()/select() on readHandle(), next to its
// other descriptors, and then take every queued message with one pop(). The
// bytes carry no data; they only make the read descriptor readable. While no
// write fails, the pipe holds exactly one byte per message pushed since the
// last pop.
//
// Ownership: the queue never owns messages. pop() hands the caller a new list
// together with every message in it; the caller deletes both. Messages still
// queued when a PipeExt is destroyed are not deleted (ThreadWPipes drains its
// queues first). The object is not copyable.
//
// Threads: any number of producers may push concurrently; one consumer pops.
// All list access, the wake-up writes and the drain of the pipe happen under
// one Poco::Mutex (recursive), so the byte count and the queue change
// together. A failing mutex throws Poco::SystemException ("cannot lock
// mutex" / "cannot unlock mutex").
//
// Descriptors: the write end stays blocking. The read end is blocking until
// the first pop() that finds messages; from then on it is non-blocking for
// every user of it (the drain sets its status flags to exactly O_NONBLOCK).
//
// Capacity: a push never waits for the pipe. The queue counts the wake-up
// bytes written since the last drain (under the mutex, like the writes and
// the drain), and while the pipe has room every push writes its byte. Once
// the pipe holds as many bytes as it can (its capacity, read once at
// construction: 65 536 for a default pipe, less for a user beyond the
// kernel's pipe allowance), pushes queue their message without writing: the
// full pipe is readable anyway, so the consumer still wakes, and its pop()
// takes every message and drains the pipe. Until that pop the pipe holds
// fewer bytes than there are messages. A queue with no consumer at all keeps
// accepting messages; memory is its only limit, as for any unbounded queue.
// The pipe keeps the size the kernel gave it, so a queue costs the user's
// pipe allowance no more than an ordinary pipe.
//
// The wake-up bytes belong to the queue: a consumer waits for readability
// and pops, but does not read or write the pipe itself. Bytes written by
// anyone else count against the pipe's room and may make a push block; bytes
// read by anyone else without a pop leave the queue thinking the pipe is
// fuller than it is (it then skips wake-up bytes until the next pop).
#ifndef ZEL_PIPE_EXT_H
#define ZEL_PIPE_EXT_H

#include <Poco/Mutex.h>
#include <Poco/Pipe.h>

#include <cstddef>
#include <list>
#include <string>

#include <zel/PipeMessage.h>
#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API PipeExt : public Poco::Pipe {
 public:
  // Opens the pipe (Poco::CreateFileException when that fails) and reads its
  // capacity; both ends start blocking.
  PipeExt();
  // Closes the pipe. Queued messages are not deleted.
  ~PipeExt();

  PipeExt(const PipeExt&) = delete;
  PipeExt& operator=(const PipeExt&) = delete;

  // Appends the message at the back and writes one wake-up byte, unless the
  // pipe is full (see Capacity); never blocks on the pipe. A failed write is
  // reported (see signal()) and the message stays queued.
  void push(PipeMessage* message);
  // Inserts the message at the front (the priority path: it is delivered
  // before everything queued) and writes one wake-up byte.
  void push_front(PipeMessage* message);
  // Takes every queued message at once: nullptr when the queue is empty (the
  // pipe and its flags are then left alone); otherwise a new list, front
  // first, that the caller owns with its messages, and the pipe is drained.
  std::list<PipeMessage*>* pop();
  // True when nothing is queued.
  bool empty() const;

  // The two raw steps push() and pop() perform under the mutex; calling them
  // directly adds or removes wake-up bytes without touching the queue.
  //
  // signal(): writes the byte "s" to the write end, with one write() of
  // length 1, when the pipe has room for it; a full pipe is left as it is.
  // When write() does not return 1 the failure is reported as "Failed to
  // write signal. Errno <n>" (error log and trace) and nothing is thrown.
  void signal();
  // clear(): sets the read end's status flags to exactly O_NONBLOCK, then
  // reads 126 bytes at a time until a read returns less than 126. A read
  // that fails ends the drain with the debug trace "read returned -1"; so
  // does draining a pipe holding a multiple of 126 bytes (0 included), since
  // the last read finds the pipe empty. Never throws. Both take the mutex
  // (it is recursive, so push() and pop() call them while holding it).
  void clear();

 private:
  [[maybe_unused]] std::string _reserved;  // part of the object's layout; unused
  // Guarded by _mutex. (Members guarded by POCO mutexes are documented in
  // comments: clang's lock analysis cannot see POCO's lock types.)
  std::list<PipeMessage*> _messages;
  mutable Poco::Mutex _mutex;
  const size_t _capacity;  // bytes the pipe holds before a write would block
  // Guarded by _mutex: wake-up bytes written since the last drain emptied
  // the pipe; signal() writes only while this is below _capacity.
  size_t _unreadBytes;
};

}  // namespace Zel

#endif  // ZEL_PIPE_EXT_H

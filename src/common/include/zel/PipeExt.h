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
// Capacity: a producer whose push finds the pipe full blocks inside push()
// while holding the mutex, and the consumer's pop() then waits for that same
// mutex, so both would hang. To keep that out of reach, the constructor raises
// the pipe's capacity to the system maximum (/proc/sys/fs/pipe-max-size,
// 1 MiB by default), halving the request while the kernel refuses it and
// otherwise keeping the size the pipe was created with. With the default
// maximum a queue holds 1 048 576 unpopped messages before a push blocks
// (65 536 in a pipe of the usual default size, if the raise was refused).
// Each raised pipe counts 256 pages against its user's pipe quota
// (fs/pipe-user-pages-soft, 16384 pages by default): an unprivileged user
// gets the raise for about 64 pipes at a time, after which the kernel refuses
// it and gives that user's new pipes only 8 KiB (8 192 messages).
#ifndef ZEL_PIPE_EXT_H
#define ZEL_PIPE_EXT_H

#include <Poco/Mutex.h>
#include <Poco/Pipe.h>

#include <list>
#include <string>

#include <zel/PipeMessage.h>
#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API PipeExt : public Poco::Pipe {
 public:
  // Opens the pipe (Poco::CreateFileException when that fails) and raises
  // its capacity as described above; both ends start blocking.
  PipeExt();
  // Closes the pipe. Queued messages are not deleted.
  ~PipeExt();

  PipeExt(const PipeExt&) = delete;
  PipeExt& operator=(const PipeExt&) = delete;

  // Appends the message at the back and writes one wake-up byte. Blocks while
  // the pipe is full. A failed write is reported (see signal()) and the
  // message stays queued.
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
  // signal(): writes the byte "s" to the write end. When write() does not
  // return 1 the failure is reported as "Failed to write signal. Errno <n>"
  // (error log and trace) and nothing is thrown.
  void signal();
  // clear(): sets the read end's status flags to exactly O_NONBLOCK, then
  // reads 126 bytes at a time until a read returns less than 126. A read
  // that fails ends the drain with the debug trace "read returned -1"; so
  // does draining a pipe holding a multiple of 126 bytes (0 included), since
  // the last read finds the pipe empty. Never throws.
  void clear();

 private:
  [[maybe_unused]] std::string _reserved;  // part of the object's layout; unused
  // Guarded by _mutex. (Members guarded by POCO mutexes are documented in
  // comments: clang's lock analysis cannot see POCO's lock types.)
  std::list<PipeMessage*> _messages;
  mutable Poco::Mutex _mutex;
};

}  // namespace Zel

#endif  // ZEL_PIPE_EXT_H

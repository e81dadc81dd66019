// ThreadWPipes.h - a worker thread paired with an input and an output queue.
//
// Zel::ThreadWPipes is a Poco::Thread that owns two PipeExt queues: the
// input, through which other threads hand work to the worker, and the output,
// through which the worker hands results back. The application starts the
// thread with a runnable of its own; the worker waits on getInputReadFD(),
// the other side on getOutputReadFD(). The class adds no loop; it pairs the
// thread with the queues and cleans both up.
//
// Ownership: messages popped from either queue belong to the caller (list and
// messages). Messages still queued when the object is destroyed are deleted
// by the destructor, never leaked.
//
// Threads: producers may push to either side from any thread; each queue has
// its own lock (see PipeExt). One consumer per queue: the worker pops the
// input, the owner pops the output. Destroy the object only after the
// runnable has ended and the thread was joined, with nobody popping any more.
// Poco::Thread's destructor is not virtual: delete through ThreadWPipes*.
#ifndef ZEL_THREAD_W_PIPES_H
#define ZEL_THREAD_W_PIPES_H

#include <Poco/Thread.h>

#include <list>

#include <zel/PipeExt.h>
#include <zel/PipeMessage.h>
#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API ThreadWPipes : public Poco::Thread {
 public:
  ThreadWPipes();
  // Deletes every message still queued on the input, then on the output, then
  // closes both pipes. Does not stop or join the thread.
  virtual ~ThreadWPipes();

  ThreadWPipes(const ThreadWPipes&) = delete;
  ThreadWPipes& operator=(const ThreadWPipes&) = delete;

  // Descriptors of the two pipes, for poll()/select(); four distinct values.
  int getInputReadFD() const;    // readable while work is queued for the worker
  int getInputWriteFD() const;   // where the input's wake-up bytes are written
  int getOutputReadFD() const;   // readable while results are queued for the owner
  int getOutputWriteFD() const;  // where the output's wake-up bytes are written

  // Each forwards to one PipeExt operation on the named side and fails as it
  // does (Poco::SystemException on a failing mutex).
  void pushToInput(PipeMessage* message);      // input.push
  void pushPrioToInput(PipeMessage* message);  // input.push_front: overtakes everything queued
  std::list<PipeMessage*>* popFromInput();     // input.pop: nullptr when empty
  void pushToOutput(PipeMessage* message);     // output.push
  std::list<PipeMessage*>* popFromOutput();    // output.pop: nullptr when empty

  // Empties the list from the front, deleting every non-null message through
  // its virtual destructor. The list itself is kept; it must not be null.
  static void removeMessages(std::list<PipeMessage*>* messages);

 private:
  // Pops whatever the queue holds and deletes it, list and messages.
  static void deleteQueued(PipeExt& queue);

  PipeExt _input;
  PipeExt _output;
};

}  // namespace Zel

#endif  // ZEL_THREAD_W_PIPES_H

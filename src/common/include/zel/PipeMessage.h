// PipeMessage.h - base class of every message carried by a PipeExt queue.
//
// Applications derive their own message classes from Zel::PipeMessage and
// pass them between threads as pointers through a PipeExt (or the two queues
// of a ThreadWPipes). The queue never owns a message: whoever pops a message
// owns it and deletes it through the virtual destructor.
//
// A message is a plain value once constructed; its type never changes, so any
// thread may read messageType without locking.
#ifndef ZEL_PIPE_MESSAGE_H
#define ZEL_PIPE_MESSAGE_H

#include <cstdint>

#include <zel/ZelExport.h>

namespace Zel {

// The kind of a message, a 32-bit enumeration. The library defines no values
// of its own; applications define theirs, e.g.
//   const Zel::MessageTypeT MsgShutdown = static_cast<Zel::MessageTypeT>(1);
enum MessageTypeT : int32_t {};

class ZEL_API PipeMessage {
 public:
  explicit PipeMessage(MessageTypeT type) : messageType(type) {}  // a message of the given kind
  virtual ~PipeMessage();

  // Set by the constructor, never changed afterwards.
  const MessageTypeT messageType;
};

}  // namespace Zel

#endif  // ZEL_PIPE_MESSAGE_H

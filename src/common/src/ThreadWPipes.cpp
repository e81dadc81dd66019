#include <zel/ThreadWPipes.h>

namespace Zel {

ThreadWPipes::ThreadWPipes() {}

ThreadWPipes::~ThreadWPipes() {
  // A failing mutex must not escape a destructor; the messages of that queue
  // are then left to the process's end.
  try {
    deleteQueued(_input);
  } catch (...) {
  }
  try {
    deleteQueued(_output);
  } catch (...) {
  }
}

int ThreadWPipes::getInputReadFD() const { return _input.readHandle(); }
int ThreadWPipes::getInputWriteFD() const { return _input.writeHandle(); }
int ThreadWPipes::getOutputReadFD() const { return _output.readHandle(); }
int ThreadWPipes::getOutputWriteFD() const { return _output.writeHandle(); }

void ThreadWPipes::pushToInput(PipeMessage* message) { _input.push(message); }
void ThreadWPipes::pushPrioToInput(PipeMessage* message) { _input.push_front(message); }
std::list<PipeMessage*>* ThreadWPipes::popFromInput() { return _input.pop(); }
void ThreadWPipes::pushToOutput(PipeMessage* message) { _output.push(message); }
std::list<PipeMessage*>* ThreadWPipes::popFromOutput() { return _output.pop(); }

void ThreadWPipes::removeMessages(std::list<PipeMessage*>* messages) {
  while (!messages->empty()) {
    PipeMessage* message = messages->front();
    messages->pop_front();
    delete message;  // deleting nullptr does nothing
  }
}

void ThreadWPipes::deleteQueued(PipeExt& queue) {
  if (queue.empty()) return;
  std::list<PipeMessage*>* messages = queue.pop();
  if (messages == nullptr) return;  // emptied meanwhile by a (misbehaving) consumer
  removeMessages(messages);
  delete messages;
}

}  // namespace Zel

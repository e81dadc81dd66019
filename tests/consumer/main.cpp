// main.cpp - a program outside the project that uses libzel_common only
// through its installed headers and library, the way the framework's
// components do. check.sh builds it against an installation (CMake package
// and pkg-config) and against the Debian packages, and runs it.
//
// It touches every kind of exported symbol - functions, classes with
// vtables and type information (exceptions caught across the library
// boundary), static data members and globals - so a missing export fails
// the link or the run. The headers are included with their zel/ prefix, the
// only form the installed include path offers. Prints "consumer: ok" and exits 0 when all checks hold.
#include <Poco/AutoPtr.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/Event.h>

#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include <zel/AbstractTimerCallback.h>
#include <zel/Clock.h>
#include <zel/DnUtil.h>
#include <zel/LoggingWrapper.h>
#include <zel/MoUtils.h>
#include <zel/PipeExt.h>
#include <zel/ThreadWPipes.h>
#include <zel/Timer.h>
#include <zel/XPathUtil.h>
#include <zel/ZelConfiguration.h>
#include <zel/ZelException.h>
#include <zel/ZelReturn.h>
#include <zel/ZelThreadLock.h>

namespace {

int failures = 0;

void expect(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "consumer: FAILED: %s\n", what);
  ++failures;
}

struct Signal : Zel::AbstractTimerCallback {
  explicit Signal(Poco::Event& event) : _event(event) {}
  void invoke(Zel::Timer&) override { _event.set(); }
  AbstractTimerCallback* clone() const override { return new Signal(*this); }
  Poco::Event& _event;
};

void checkNaming() {
  std::string dn;
  Zel::DnUtil::getDn("ManagedElement=1", "Equipment", "serial", "7", dn);
  expect(dn == "ManagedElement=1,Equipment.serial=7", "DnUtil::getDn");
  expect(Zel::DnUtil::isValidDn(dn) && !Zel::DnUtil::isValidDn("a=1"), "DnUtil::isValidDn");
  expect(std::strlen(Zel::DnUtil::REGEXP_FOR_3GPP_DN) == 214, "DnUtil::REGEXP_FOR_3GPP_DN");
  static ZelOamSpiMoc root = {"ManagedElement", {}, nullptr};
  expect(Zel::DnUtil::checkDnChain("", &root) == 0, "DnUtil::checkDnChain");
  std::string path;
  expect(Zel::XPathUtil::getInstance("ns", "/X[id=1]", "T", "id", "2", path) && path == "/X[id=1]/ns:T[id=2]",
         "XPathUtil::getInstance");
}

void checkErrors() {
  expect(std::strcmp(Zel::ZelReturn::strerror(ZelInvalidArgument), "ZelInvalidArgument") == 0, "ZelReturn::strerror");
  try {
    throw Zel::ZelInternalException("code %d", 5);
  } catch (const Zel::ZelException& e) {
    expect(std::strcmp(e.what(), "ZelInternalException(code 5)") == 0, "ZelInternalException::what");
  }
}

void checkConfiguration() {
  Zel::ZelConfiguration config;
  config.load("<cfg><port>830</port></cfg>");
  Poco::AutoPtr<Poco::XML::NodeList> ports(config.getElementsByTagName("port"));
  expect(ports->length() == 1 && config.get_text(static_cast<Poco::XML::Element*>(ports->item(0))) == "830",
         "ZelConfiguration lookups");
  bool thrown = false;
  try {
    config.load("<unclosed>");
  } catch (const Zel::ZelException&) {  // thrown inside the library, caught here
    thrown = true;
  }
  expect(thrown && config.isLoaded(), "ZelConfiguration::load failure keeps the document");
}

void checkThreads() {
  Zel::ZelThreadLock lock;
  lock.lock();
  lock.unlock();

  Zel::PipeExt pipe;
  pipe.push(new Zel::PipeMessage(static_cast<Zel::MessageTypeT>(7)));
  std::list<Zel::PipeMessage*>* batch = pipe.pop();
  expect(batch != nullptr && batch->size() == 1 && batch->front()->messageType == 7, "PipeExt push/pop");
  if (batch != nullptr) Zel::ThreadWPipes::removeMessages(batch);
  delete batch;

  Zel::ThreadWPipes worker;
  worker.pushToOutput(new Zel::PipeMessage(static_cast<Zel::MessageTypeT>(1)));
  expect(worker.getOutputReadFD() >= 0, "ThreadWPipes descriptors");  // destructor deletes the queued message

  Poco::Event fired;
  Zel::Clock before;
  Zel::Timer timer(10, 0);
  timer.start(Signal(fired));
  expect(fired.tryWait(5000), "Timer fires");
  timer.stop();
  expect(Zel::Clock() - before >= 9000 && Zel::Clock::CLOCKVAL_MAX > 0, "Clock");
}

void checkValues() {
  char* text = Zel::MoUtils::copyString("abc");
  expect(text != nullptr && std::strcmp(text, "abc") == 0, "MoUtils::copyString");
  delete[] text;

  ZelMoAttributeValueData data[2];
  data[0].i32 = 5;
  data[1].i32 = -1;
  ZelMoAttributeValueContainer source = {ZelMoAttributeValueTypeInt32, 2, data};
  ZelMoAttributeValueContainer* copy = Zel::MoUtils::copyAttributeValueContainer(&source);
  expect(copy != nullptr && copy != &source && copy->count == 2 && copy->values[1].i32 == -1,
         "MoUtils::copyAttributeValueContainer");
  Zel::MoUtils::deleteAttributeValueContainer(&copy);
  expect(copy == nullptr, "MoUtils::deleteAttributeValueContainer");
}

void checkLogging() {
  Zel::LoggingWrapper* log = Zel::LoggingWrapper::getInstance();
  expect(Zel::LoggingWrapper::theInstance == log, "LoggingWrapper::theInstance");
  expect(std::strcmp(Zel::_LOGGER_FNAME, "zel.log") == 0 && Zel::Trace::Common == 0, "logging globals");
  if (log->isSaLoggingAllowed(1u << 6, 6)) log->log_printf("consumer", 6, 1, "consumer record %d", 1);
  // The same through the record macros: function name from __func__.
  ZEL_LOG_NOTICE("macro record %d", 2);
  ZEL_DEBUG("filtered out at the default level %d", 6);
  log->close();
}

}  // namespace

int main() {
  checkNaming();
  checkErrors();
  checkConfiguration();
  checkThreads();
  checkValues();
  checkLogging();
  if (failures != 0) return 1;
  std::printf("consumer: ok\n");
  return 0;
}

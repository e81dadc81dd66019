// Tests of the local log file unit: the one line composer, and how a writer
// follows a live file that changed under it (renamed by a tool, deleted,
// rotated by another writer of the same directory).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <zel/LoggingWrapper.h>
#include "internal/LogFile.h"
#include "support/StderrCapture.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using Zel::internal::composeLine;
using Zel::internal::kRecordSize;
using ZelTest::listDir;
using ZelTest::readFile;

const char kStamp[] = "2026-11-22T10:11:12.345+01:00";

std::string compose(const char* tag, const char* tail, int line, const char* function, const std::string& message,
                    size_t size = kRecordSize) {
  char record[kRecordSize];
  const size_t length = composeLine(record, size, kStamp, sizeof(kStamp) - 1, tag, tail, line, function,
                                    message.c_str());
  EXPECT_EQ(std::strlen(record), length);
  return record;
}

std::string viaSnprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string viaSnprintf(const char* format, ...) {
  char record[kRecordSize];
  va_list args;
  va_start(args, format);
  std::vsnprintf(record, sizeof(record), format, args);
  va_end(args);
  return record;
}

TEST(LogFileComposer, LogLineIsStampTagFunctionMessage) {
  EXPECT_EQ(viaSnprintf("%s %2s %-25s %s", kStamp, "ER", "signal", "the text"),
            compose("ER", nullptr, 0, "signal", "the text"));
}

TEST(LogFileComposer, TraceLineCarriesTheSourceLocation) {
  EXPECT_EQ(viaSnprintf("%s %2s %-24s:%-5d - %-25s %s", kStamp, "TR", "file.cpp", 77, "tracer", "the text"),
            compose("TR", "file.cpp", 77, "tracer", "the text"));
}

TEST(LogFileComposer, LongPiecesAndNullFunctionComposeAsSnprintfDoes) {
  const std::string longFunction(40, 'f');
  const std::string longMessage(1200, 'm');
  EXPECT_EQ(viaSnprintf("%s %2s %-25s %s", kStamp, "IN", longFunction.c_str(), longMessage.c_str()),
            compose("IN", nullptr, 0, longFunction.c_str(), longMessage));
  EXPECT_EQ(viaSnprintf("%s %2s %-24s:%-5d - %-25s %s", kStamp, "TR", "t", 123456789, longFunction.c_str(),
                        longMessage.c_str()),
            compose("TR", "t", 123456789, longFunction.c_str(), longMessage));
  const char* none = nullptr;
  EXPECT_EQ(viaSnprintf("%s %2s %-25s %s", kStamp, "IN", "(null)", "x"), compose("IN", nullptr, 0, none, "x"));
  EXPECT_EQ(999u, compose("IN", nullptr, 0, "f", longMessage).size());
}

TEST(LogFileComposer, SmallBuffersCutLikeSnprintf) {
  char record[20];
  composeLine(record, sizeof(record), kStamp, sizeof(kStamp) - 1, "ER", nullptr, 0, "f", "m");
  EXPECT_EQ(std::string(kStamp).substr(0, 19), record);
}

class LogFileTest : public ZelTest::WrapperTest {
 protected:
  void record(LoggingWrapper* w, const std::string& text) { w->log_printf("logFile", 6, 1, "%s", text.c_str()); }
  static bool holds(const std::string& text, const std::string& record) {
    return text.find(" IN logFile" + std::string(19, ' ') + record + "\n") != std::string::npos;
  }
};

TEST_F(LogFileTest, LiveFileRenamedByAToolIsFollowedAtTheNextWrite) {
  LoggingWrapper* w = wrapper();
  record(w, "before");
  w->flush();
  // What a rotating tool does: rename the live file away.
  ASSERT_EQ(0, std::rename(liveFile().c_str(), tmp.file("zel.log.old").c_str()));
  record(w, "after");
  w->flush();
  EXPECT_TRUE(holds(readFile(tmp.file("zel.log.old")), "before"));
  EXPECT_FALSE(holds(readFile(tmp.file("zel.log.old")), "after"));
  EXPECT_TRUE(holds(readFile(liveFile()), "after"));
}

// Links of this process's descriptors to deleted files.
int deletedFilesHeld() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[4096];
    const std::string proc = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(proc.c_str(), link, sizeof(link) - 1);
    if (length <= 0) continue;
    link[length] = '\0';
    if (std::string(link).find("zel.log (deleted)") != std::string::npos) ++count;
  }
  return count;
}

TEST_F(LogFileTest, DeletedLiveFileIsLetGoOfAtTheNextWrite) {
  LoggingWrapper* w = wrapper();
  record(w, "first");
  w->flush();
  ASSERT_EQ(0, ::unlink(liveFile().c_str()));
  EXPECT_EQ(1, deletedFilesHeld());
  record(w, "second");
  w->flush();
  EXPECT_EQ(0, deletedFilesHeld());  // its space is free
  EXPECT_TRUE(holds(readFile(liveFile()), "second"));
}

TEST_F(LogFileTest, FileRotatedByAnotherWriterIsReopenedNotRotatedAgain) {
  // Two writers of one directory (two wrappers stand for two processes).
  LoggingWrapper* a = wrapper({{"ZEL_LOGGING_FMAXSIZE", "100"}});
  LoggingWrapper* b = wrapper({{"ZEL_LOGGING_FMAXSIZE", "100"}});
  record(a, "a1");
  record(b, "b1");
  a->flush();
  b->flush();
  ASSERT_GT(readFile(liveFile()).size(), 100u);
  record(a, "a2");  // a rotates: zel.log -> zel.log.1
  a->flush();
  ASSERT_EQ(std::vector<std::string>({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  // b's descriptor still shows the old, full file; under the lock it sees
  // that the live path names a new file and only reopens.
  record(b, "b2");
  b->flush();
  EXPECT_EQ(std::vector<std::string>({"zel.log", "zel.log.1"}), listDir(tmp.path()));
  const std::string live = readFile(liveFile());
  EXPECT_TRUE(holds(live, "a2"));
  EXPECT_TRUE(holds(live, "b2"));
  const std::string rotated = readFile(tmp.file("zel.log.1"));
  EXPECT_TRUE(holds(rotated, "a1"));
  EXPECT_TRUE(holds(rotated, "b1"));
}

TEST_F(LogFileTest, NumberedFileAnotherWriterRotatedIsNotWrittenOverByTheReuseRule) {
  // b has the larger limit: the numbered file a made is "not full" for b,
  // but it holds a's records and must stay.
  LoggingWrapper* a = wrapper({{"ZEL_LOGGING_FMAXSIZE", "100"}});
  LoggingWrapper* b = wrapper({{"ZEL_LOGGING_FMAXSIZE", "1000"}});
  usleep(20000);  // the files below are younger than both writers
  for (int i = 0; i < 3; ++i) record(a, "a" + std::to_string(i));
  a->flush();
  record(a, "rotating");  // zel.log.1, about 200 bytes
  a->flush();
  for (int i = 0; i < 15; ++i) record(b, "b" + std::to_string(i));
  b->flush();
  ASSERT_GT(readFile(liveFile()).size(), 1000u);
  record(b, "rotating");
  b->flush();
  EXPECT_EQ(std::vector<std::string>({"zel.log", "zel.log.1", "zel.log.2"}), listDir(tmp.path()));
  EXPECT_TRUE(holds(readFile(tmp.file("zel.log.1")), "a0"));
  EXPECT_TRUE(holds(readFile(tmp.file("zel.log.2")), "b14"));
}

}  // namespace

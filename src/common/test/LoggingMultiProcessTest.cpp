// Several real processes writing one log file, each with its own limits:
// every record must be in the files exactly once and whole, in each
// process's order; with pruning only whole oldest files may go.
//
// Each writer is a forked process with a wrapper of its own on the test's
// temp dir; the children start writing together and call close() at the
// end, as a process of the framework does.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <zel/LoggingWrapper.h>
#include "support/LogLines.h"
#include "support/Processes.h"
#include "support/WrapperFixture.h"

namespace {

using Zel::LoggingWrapper;
using ZelTest::fileExists;
using ZelTest::listDir;
using ZelTest::readFile;

const int kRecordsPerProcess = 20000;

// Payload of record `seq`: lengths that vary, so that records straddle
// buffer and size boundaries in every way.
std::string payload(int seq) { return std::string(static_cast<size_t>(seq % 97), static_cast<char>('a' + seq % 26)); }

// The wrapper of a writer process, made before the writers start.
LoggingWrapper* gWriter = nullptr;

int writeRecords(LoggingWrapper* w, int process) {
  for (int seq = 0; seq < kRecordsPerProcess; ++seq)
    w->log_printf("multiProcess", 6, 1, "p%d seq=%06d %s", process, seq, payload(seq).c_str());
  w->close();
  return 0;
}

// What the files of the directory hold, read oldest file first.
struct Census {
  std::vector<std::vector<int>> sequences;  // per process, in file order
  std::vector<std::string> torn;            // lines that are not a whole record
  size_t files = 0;
};

Census readBack(const std::string& dir, int processes) {
  Census census;
  census.sequences.resize(static_cast<size_t>(processes));
  std::map<long, std::string> numbered;
  for (const std::string& name : listDir(dir)) {
    if (name.rfind("zel.log.", 0) == 0) numbered[std::stol(name.substr(8))] = dir + "/" + name;
  }
  std::vector<std::string> order;
  for (const auto& entry : numbered) order.push_back(entry.second);
  order.push_back(dir + "/zel.log");
  census.files = order.size();
  const std::regex record(std::string("^") + ZelTest::kStampPattern +
                          " IN multiProcess              p(\\d) seq=(\\d{6}) ([a-z]*)$");
  for (const std::string& path : order) {
    const std::string text = readFile(path);
    if (!text.empty() && text.back() != '\n') census.torn.push_back(path + " ends inside a line");
    for (const std::string& line : ZelTest::splitLines(text)) {
      std::smatch match;
      if (!std::regex_match(line, match, record)) {
        census.torn.push_back(line);
        continue;
      }
      const int process = std::stoi(match[1]);
      const int seq = std::stoi(match[2]);
      if (process >= processes || match[3] != payload(seq)) {
        census.torn.push_back(line);
        continue;
      }
      census.sequences[static_cast<size_t>(process)].push_back(seq);
    }
  }
  return census;
}

struct Losses {
  int lost = 0;
  int duplicated = 0;
  int outOfOrder = 0;
};

Losses countLosses(const std::vector<int>& sequence, int first) {
  Losses losses;
  std::vector<int> seen(kRecordsPerProcess, 0);
  for (size_t i = 0; i < sequence.size(); ++i) {
    if (++seen[static_cast<size_t>(sequence[i])] > 1) ++losses.duplicated;
    if (i > 0 && sequence[i] <= sequence[i - 1]) ++losses.outOfOrder;
  }
  for (int seq = first; seq < kRecordsPerProcess; ++seq)
    if (seen[static_cast<size_t>(seq)] == 0) ++losses.lost;
  return losses;
}

// Every record of every writer is in the files once, whole and in its
// writer's order.
void expectEveryRecordOnceAndWhole(const Census& census) {
  EXPECT_EQ(0u, census.torn.size()) << (census.torn.empty() ? "" : census.torn.front());
  for (size_t p = 0; p < census.sequences.size(); ++p) {
    const Losses losses = countLosses(census.sequences[p], 0);
    EXPECT_EQ(0, losses.lost) << "process " << p;
    EXPECT_EQ(0, losses.duplicated) << "process " << p;
    EXPECT_EQ(0, losses.outOfOrder) << "process " << p;
  }
}

class LoggingMultiProcessTest : public ZelTest::TempDirTest {
 protected:
  // Runs one writer process per limit and returns what the files hold.
  Census run(const std::vector<unsigned>& limits, unsigned maxCount) {
    ZelTest::Processes group;
    const std::string dir = tmp.path();
    for (size_t i = 0; i < limits.size(); ++i) {
      const int process = static_cast<int>(i);
      const unsigned limit = limits[i];
      group.start(
          [dir, limit, maxCount] {
            gWriter = ZelTest::makeWrapper(dir, {{"ZEL_LOGGING_FMAXSIZE", std::to_string(limit)},
                                                 {"ZEL_LOGGING_FMAXCOUNT", std::to_string(maxCount)}});
          },
          [process] { return writeRecords(gWriter, process); });
    }
    usleep(20000);  // every writer has made its wrapper
    group.go();
    EXPECT_EQ("", group.waitAll());
    Census census = readBack(dir, static_cast<int>(limits.size()));
    // The figures of the run, for the reliability notes.
    size_t found = 0;
    int lost = 0;
    int duplicated = 0;
    for (const std::vector<int>& sequence : census.sequences) {
      found += sequence.size();
      const Losses losses = countLosses(sequence, sequence.empty() ? 0 : sequence.front());
      lost += losses.lost;
      duplicated += losses.duplicated;
    }
    std::printf("[ figures  ] %zu files, %zu records found, %d lost (after the oldest kept), %zu torn, %d duplicated\n",
                census.files, found, lost, census.torn.size(), duplicated);
    return census;
  }
};

TEST_F(LoggingMultiProcessTest, FourProcessesRotatingAt64KiBLoseTearAndDuplicateNothing) {
  const Census census = run({65536, 65536, 65536, 65536}, 100000);
  EXPECT_GT(census.files, 50u);  // many rotations happened
  expectEveryRecordOnceAndWhole(census);
}

TEST_F(LoggingMultiProcessTest, FourProcessesWithDifferentLimitsLoseTearAndDuplicateNothing) {
  const Census census = run({32768, 65536, 131072, 262144}, 100000);
  EXPECT_GT(census.files, 20u);
  expectEveryRecordOnceAndWhole(census);
}

TEST_F(LoggingMultiProcessTest, PruningByFourProcessesDeletesOnlyWholeOldestFiles) {
  const unsigned maxCount = 60;  // about 40 % of what the four write
  const Census census = run({65536, 65536, 65536, 65536}, maxCount);
  EXPECT_EQ(maxCount + 1, census.files);  // the kept numbered files and the live one
  EXPECT_EQ(0u, census.torn.size()) << (census.torn.empty() ? "" : census.torn.front());
  size_t kept = 0;
  for (int p = 0; p < 4; ++p) {
    const std::vector<int>& sequence = census.sequences[static_cast<size_t>(p)];
    kept += sequence.size();
    if (sequence.empty()) continue;  // a writer that finished early may be pruned away entirely
    // What survives of each process is the newest part of its records,
    // without a hole: only whole oldest files were deleted.
    const Losses losses = countLosses(sequence, sequence.front());
    EXPECT_EQ(0, losses.lost) << "process " << p;
    EXPECT_EQ(0, losses.duplicated) << "process " << p;
    EXPECT_EQ(0, losses.outOfOrder) << "process " << p;
    EXPECT_EQ(kRecordsPerProcess - 1, sequence.back()) << "process " << p;
  }
  EXPECT_GT(kept, static_cast<size_t>(kRecordsPerProcess));
}

TEST_F(LoggingMultiProcessTest, FourProcessesAtTheDefaultLimitLoseTearAndDuplicateNothing) {
  const Census census = run({5242880, 5242880, 5242880, 5242880}, 100);
  EXPECT_GT(census.files, 1u);
  expectEveryRecordOnceAndWhole(census);
}

TEST_F(LoggingMultiProcessTest, WithoutRotationFourProcessesTearNoRecord) {
  const Census census = run({1u << 30, 1u << 30, 1u << 30, 1u << 30}, 5);
  EXPECT_EQ(1u, census.files);
  expectEveryRecordOnceAndWhole(census);
}

}  // namespace

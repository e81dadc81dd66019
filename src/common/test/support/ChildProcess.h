// ChildProcess.h - checks that run in a forked child.
//
// Process-wide state (the logging singleton reads the environment once, the
// trace handles are globals) is tested inside GoogleTest exit tests:
//
//   EXPECT_EXIT({ setenv(...); ...; CHILD_EXPECT_EQ(a, b); _exit(0); },
//               ::testing::ExitedWithCode(0), "");
//
// A failed CHILD_EXPECT prints what failed to stderr (which the parent shows
// in its failure message) and ends the child with status 1.
#ifndef ZEL_TEST_CHILD_PROCESS_H
#define ZEL_TEST_CHILD_PROCESS_H

#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>

#define CHILD_EXPECT(cond)                                                                          \
  do {                                                                                              \
    if (!(cond)) {                                                                                  \
      std::fprintf(stderr, "CHILD_EXPECT failed at %s:%d: %s\n", __FILE__, __LINE__, #cond);        \
      std::fflush(stderr);                                                                          \
      _exit(1);                                                                                     \
    }                                                                                               \
  } while (0)

#define CHILD_EXPECT_EQ(expected, actual)                                                           \
  do {                                                                                              \
    const auto& zelE_ = (expected);                                                                 \
    const auto& zelA_ = (actual);                                                                   \
    if (!(zelE_ == zelA_)) {                                                                        \
      std::ostringstream zelS_;                                                                     \
      zelS_ << "CHILD_EXPECT_EQ failed at " << __FILE__ << ":" << __LINE__ << ": " << #expected     \
            << " == " << #actual << "\n  expected: [" << zelE_ << "]\n  actual:   [" << zelA_ << "]\n"; \
      std::fputs(zelS_.str().c_str(), stderr);                                                      \
      std::fflush(stderr);                                                                          \
      _exit(1);                                                                                     \
    }                                                                                               \
  } while (0)

#endif  // ZEL_TEST_CHILD_PROCESS_H

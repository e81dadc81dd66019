#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include <zel/ZelReturn.h>

namespace {

TEST(ZelReturn, StrerrorNamesEveryCode) {
  const struct {
    ZelReturnT code;
    const char* name;
  } table[] = {{ZelOk, "ZelOk"},
               {ZelTryAgain, "ZelTryAgain"},
               {ZelNotActive, "ZelNotActive"},
               {ZelFailure, "ZelFailure"},
               {ZelNotExist, "ZelNotExist"},
               {ZelAlreadyExist, "ZelAlreadyExist"},
               {ZelAborted, "ZelAborted"},
               {ZelObjectLocked, "ZelObjectLocked"},
               {ZelPrepareFailed, "ZelPrepareFailed"},
               {ZelCommitFailed, "ZelCommitFailed"},
               {ZelInvalidArgument, "ZelInvalidArgument"},
               {ZelValidationFailed, "ZelValidationFailed"},
               {ZelNoResources, "ZelNoResources"},
               {ZelTimeOut, "ZelTimeOut"}};
  for (const auto& row : table) EXPECT_STREQ(row.name, Zel::ZelReturn::strerror(row.code)) << row.code;
}

TEST(ZelReturn, CodesHaveTheirNumbers) {
  EXPECT_EQ(0, ZelOk);
  EXPECT_EQ(1, ZelTryAgain);
  EXPECT_EQ(2, ZelNotActive);
  EXPECT_EQ(-1, ZelFailure);
  EXPECT_EQ(-2, ZelNotExist);
  EXPECT_EQ(-8, ZelInvalidArgument);
  EXPECT_EQ(-11, ZelTimeOut);
  EXPECT_EQ(4u, sizeof(ZelReturnT));
}

TEST(ZelReturn, StrerrorOfUnknownValuesSaysSo) {
  for (int value : {3, -12, 100, INT_MAX, INT_MIN})
    EXPECT_STREQ("Unknown return code", Zel::ZelReturn::strerror(static_cast<ZelReturnT>(value))) << value;
}

TEST(ZelReturn, StrerrorTextsAreStatic) {
  EXPECT_EQ(Zel::ZelReturn::strerror(ZelTimeOut), Zel::ZelReturn::strerror(ZelTimeOut));
}

}  // namespace

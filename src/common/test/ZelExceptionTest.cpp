#include <gtest/gtest.h>

#include <string>

#include <zel/ZelException.h>

namespace {

using Zel::MandatoryAlwaysRunningStartFailedException;
using Zel::ZelException;
using Zel::ZelInternalErrorException;
using Zel::ZelInternalException;

TEST(ZelException, FormatGivesWhatStringAndFailureCode) {
  ZelException e("x");
  EXPECT_STREQ("ZelException(x)", e.what());
  EXPECT_EQ(ZelFailure, e.getReturnCode());
  EXPECT_EQ("x", e.getReason());
}

TEST(ZelException, DefaultHasEmptyWhatAndOkCode) {
  ZelException e;
  EXPECT_STREQ("", e.what());
  EXPECT_EQ(ZelOk, e.getReturnCode());
}

TEST(ZelException, FormatsArguments) {
  ZelException e("bad %d of %s", 5, "six");
  EXPECT_STREQ("ZelException(bad 5 of six)", e.what());
}

TEST(ZelException, StringReasonIsTakenAsItIs) {
  ZelException e(std::string("100%d"));
  EXPECT_STREQ("ZelException(100%d)", e.what());
  EXPECT_EQ(ZelFailure, e.getReturnCode());
}

TEST(ZelException, CodeConstructorsKeepTheCode) {
  ZelException fromString(ZelNotExist, std::string("gone"));
  EXPECT_EQ(ZelNotExist, fromString.getReturnCode());
  EXPECT_STREQ("ZelException(gone)", fromString.what());
  ZelException fromFormat(ZelTimeOut, "after %d ms", 20);
  EXPECT_EQ(ZelTimeOut, fromFormat.getReturnCode());
  EXPECT_STREQ("ZelException(after 20 ms)", fromFormat.what());
}

TEST(ZelException, DerivedFormatGivesOkCodeWhileStringGivesFailure) {
  ZelInternalException formatted("value %d", 7);
  EXPECT_EQ(ZelOk, formatted.getReturnCode());
  EXPECT_STREQ("ZelInternalException(value 7)", formatted.what());
  ZelInternalException fromString(std::string("plain"));
  EXPECT_EQ(ZelFailure, fromString.getReturnCode());
  EXPECT_STREQ("ZelInternalException(plain)", fromString.what());
}

TEST(ZelException, EveryDerivedClassNamesItself) {
  EXPECT_STREQ("ZelInternalErrorException(a)", ZelInternalErrorException("a").what());
  EXPECT_STREQ("ZelInternalErrorException(b)", ZelInternalErrorException(std::string("b")).what());
  EXPECT_STREQ("MandatoryAlwaysRunningStartFailedException(c)",
               MandatoryAlwaysRunningStartFailedException("c").what());
  EXPECT_STREQ("MandatoryAlwaysRunningStartFailedException(d)",
               MandatoryAlwaysRunningStartFailedException(std::string("d")).what());
}

TEST(ZelException, BaseCauseConstructorCopiesTheCausesCode) {
  ZelException cause(ZelInvalidArgument, "no memory");
  ZelException e(cause, "bad %d", 5);
  EXPECT_EQ(ZelInvalidArgument, e.getReturnCode());
  EXPECT_STREQ("ZelException(no memory,bad 5)", e.what());
}

TEST(ZelException, DerivedCauseConstructorsDoNotTakeTheCode) {
  ZelException cause(ZelInvalidArgument, "no memory");
  MandatoryAlwaysRunningStartFailedException e(cause, "start");
  EXPECT_EQ(ZelOk, e.getReturnCode());
  EXPECT_STREQ("MandatoryAlwaysRunningStartFailedException(no memory,start)", e.what());
}

TEST(ZelException, CauseChainUsesReasonsOnly) {
  ZelException cause(std::string("no memory"));
  ZelInternalErrorException e(cause, "bad %d", 5);
  EXPECT_EQ("no memory,bad 5", e.getReason());
  EXPECT_STREQ("ZelInternalErrorException(no memory,bad 5)", e.what());
  ZelInternalException outer(e, "retry %s", "failed");
  EXPECT_STREQ("ZelInternalException(no memory,bad 5,retry failed)", outer.what());
}

TEST(ZelException, AssignmentKeepsTheTargetsCode) {
  ZelException source(ZelInvalidArgument, "invalid %s", "dn");
  ZelException target;
  target = source;
  EXPECT_EQ(ZelOk, target.getReturnCode());
  EXPECT_STREQ("ZelException(invalid dn)", target.what());
}

TEST(ZelException, DerivedAssignmentRebuildsWhatFromCopiedName) {
  ZelInternalException source(std::string("one"));
  ZelInternalErrorException target("two");
  target = ZelInternalErrorException(std::string("three"));
  EXPECT_STREQ("ZelInternalErrorException(three)", target.what());
  EXPECT_EQ(ZelOk, target.getReturnCode());
  ZelException& base = target;
  base = source;
  EXPECT_STREQ("ZelInternalException(one)", target.what());
  EXPECT_EQ(ZelOk, target.getReturnCode());
}

TEST(ZelException, SelfAssignmentChangesNothing) {
  ZelException e(ZelAborted, "kept");
  ZelException& alias = e;
  e = alias;
  EXPECT_STREQ("ZelException(kept)", e.what());
  EXPECT_EQ(ZelAborted, e.getReturnCode());
}

TEST(ZelException, LongReasonIsCutAt1023Characters) {
  const std::string text(2000, 'r');
  ZelException e("%s", text.c_str());
  EXPECT_EQ(std::string(1023, 'r'), e.getReason());
  EXPECT_EQ("ZelException(" + std::string(1023, 'r') + ")", std::string(e.what()));
}

TEST(ZelException, StringReasonIsNotCut) {
  const std::string text(2000, 's');
  ZelException e(text);
  EXPECT_EQ(text, e.getReason());
}

TEST(ZelException, SetReasonAfterConstructionTakesTheFormatLiterally) {
  ZelException e("first");
  e.setReason("now %d%s");
  EXPECT_EQ("now %d%s", e.getReason());
  // The what string is not rebuilt by setReason.
  EXPECT_STREQ("ZelException(first)", e.what());
}

TEST(ZelException, CopiesSurviveThrowing) {
  try {
    throw ZelInternalErrorException("thrown %d", 1);
  } catch (const std::exception& e) {
    EXPECT_STREQ("ZelInternalErrorException(thrown 1)", e.what());
  }
  try {
    throw ZelException(ZelNoResources, std::string("r"));
  } catch (const ZelException& e) {
    EXPECT_EQ(ZelNoResources, e.getReturnCode());
  }
}

}  // namespace

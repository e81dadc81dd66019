// Tests of Zel::LogEscape: which bytes are escaped, how, and that nothing else
// changes.
#include <gtest/gtest.h>

#include <string>

#include <zel/LogEscape.h>

using Zel::LogEscape;

namespace {

TEST(LogEscape, PlainTextIsKeptAsItIs) {
  EXPECT_EQ("", LogEscape::escape(""));
  EXPECT_EQ("Failed to write signal. Errno 32 %s %n", LogEscape::escape("Failed to write signal. Errno 32 %s %n"));
  EXPECT_TRUE(LogEscape::isSafe("plain ~ text"));
  EXPECT_TRUE(LogEscape::isSafe(""));
}

TEST(LogEscape, LineBreaksCarriageReturnsAndTabsGetTheirNames) {
  EXPECT_EQ("first\\n2026-01-01T00:00:00.000+00:00 EM kernel   forged",
            LogEscape::escape("first\n2026-01-01T00:00:00.000+00:00 EM kernel   forged"));
  EXPECT_EQ("a\\rb", LogEscape::escape("a\rb"));
  EXPECT_EQ("a\\tb", LogEscape::escape("a\tb"));
  EXPECT_FALSE(LogEscape::isSafe("a\nb"));
}

TEST(LogEscape, OtherControlBytesBecomeLowerCaseHex) {
  EXPECT_EQ("\\x1b[2J\\x1b]0;title\\x07", LogEscape::escape("\x1b[2J\x1b]0;title\x07"));
  EXPECT_EQ("\\x00\\x01\\x1f\\x7f", LogEscape::escape(std::string("\x00\x01\x1f\x7f", 4)));
  EXPECT_EQ("\\x08\\x0b\\x0c", LogEscape::escape("\b\v\f"));
}

TEST(LogEscape, EveryAsciiControlIsEscapedAndEveryOtherAsciiKept) {
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string in(1, static_cast<char>(byte));
    const std::string out = LogEscape::escape(in);
    if (byte < 0x20 || byte == 0x7f) {
      EXPECT_EQ('\\', out[0]) << byte;
      EXPECT_GE(out.size(), 2u) << byte;
      EXPECT_FALSE(LogEscape::isSafe(in)) << byte;
    } else {
      EXPECT_EQ(in, out) << byte;
      EXPECT_TRUE(LogEscape::isSafe(in)) << byte;
    }
  }
}

TEST(LogEscape, Utf8C1ControlsAreEscapedOtherUtf8IsKept) {
  // U+009B is the one-character control sequence introducer.
  EXPECT_EQ("\\xc2\\x9b2J", LogEscape::escape("\xc2\x9b" "2J"));
  EXPECT_EQ("\\xc2\\x80\\xc2\\x9f", LogEscape::escape("\xc2\x80\xc2\x9f"));
  // U+00A0 (c2 a0), e acute (c3 a9), U+00DB (c3 9b, a 0x9b that is no
  // control) and the euro sign stay.
  const std::string text = "\xc2\xa0 caf\xc3\xa9 \xc3\x9b \xe2\x82\xac";
  EXPECT_EQ(text, LogEscape::escape(text));
  EXPECT_TRUE(LogEscape::isSafe(text));
  // A lone c2 at the end, or before a byte that is no C1 control, is kept.
  EXPECT_EQ("x\xc2", LogEscape::escape("x\xc2"));
  EXPECT_EQ("\xc2" "A", LogEscape::escape("\xc2" "A"));
}

TEST(LogEscape, BackslashesAreKept) {
  EXPECT_EQ("A\\2C \\n", LogEscape::escape("A\\2C \\n"));
  EXPECT_TRUE(LogEscape::isSafe("A\\2C"));
}

TEST(LogEscape, ResultHoldsNoControlByteAndIsSafe) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);
  every += "\xc2\x85";
  const std::string out = LogEscape::escape(every);
  for (size_t i = 0; i < out.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(out[i]);
    EXPECT_FALSE(byte < 0x20 || byte == 0x7f) << i;
  }
  EXPECT_TRUE(LogEscape::isSafe(out));
  EXPECT_EQ(out, LogEscape::escape(out));
}

}  // namespace

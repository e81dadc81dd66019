// LogEscape.h - makes untrusted text safe to write as a single log record.
//
// LoggingWrapper::log_printf writes the caller's text as given: a line break
// in it starts what looks like a new record (a forged time stamp and level
// tag included), and a carriage return or an escape sequence rewrites the
// terminal of whoever reads the file with cat or tail. Callers that log text
// they do not control (user input, peer messages, file contents) pass it
// through LogEscape::escape first:
//
//   log->log_printf("login", 4, 1, "bad user %s", Zel::LogEscape::escape(user).c_str());
//
// Every control character becomes a visible escape and nothing else changes:
//   "\n" -> "\\n"   "\r" -> "\\r"   "\t" -> "\\t"
//   other bytes 0x00-0x1f and 0x7f -> "\\x" and two lower-case hex digits
//                                     ("\x1b[2J" -> "\\x1b[2J")
//   C1 controls U+0080-U+009F (the UTF-8 bytes c2 80 - c2 9f), which some
//   terminals obey like escape sequences -> both bytes as "\\xc2\\x9b"
// Printable ASCII, other UTF-8 and other bytes are kept, a backslash too: the
// result is meant to be read by people, not decoded again (a text that
// already contains "\\n" reads the same as an escaped line break).
//
// Stateless and reentrant: any thread may call it at any time. It allocates
// the result (at most four bytes out per byte in) and throws only what
// std::string throws.
#ifndef ZEL_LOG_ESCAPE_H
#define ZEL_LOG_ESCAPE_H

#include <string>

#include <zel/ZelExport.h>

namespace Zel {

class ZEL_API LogEscape {
 public:
  // text with every control character written as an escape (see above); the
  // result holds no byte below 0x20, no 0x7f and no UTF-8 C1 control.
  static std::string escape(const std::string& text);

  // True when escape(text) would change nothing.
  static bool isSafe(const std::string& text);
};

}  // namespace Zel

#endif  // ZEL_LOG_ESCAPE_H

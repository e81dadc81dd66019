#include <zel/LogEscape.h>

namespace Zel {

namespace {

bool isAsciiControl(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }

// True when text[i] starts the UTF-8 form of a C1 control (c2 80 - c2 9f).
bool startsC1Control(const std::string& text, size_t i) {
  return static_cast<unsigned char>(text[i]) == 0xc2 && i + 1 < text.size() &&
         static_cast<unsigned char>(text[i + 1]) >= 0x80 && static_cast<unsigned char>(text[i + 1]) <= 0x9f;
}

void appendHex(std::string& out, unsigned char byte) {
  static const char DIGITS[] = "0123456789abcdef";
  out += "\\x";
  out += DIGITS[byte >> 4];
  out += DIGITS[byte & 0x0f];
}

}  // namespace

std::string LogEscape::escape(const std::string& text) {
  if (isSafe(text)) return text;
  std::string out;
  out.reserve(text.size() + 16);
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    if (startsC1Control(text, i)) {
      appendHex(out, byte);
      appendHex(out, static_cast<unsigned char>(text[++i]));
    } else if (!isAsciiControl(byte)) {
      out += text[i];
    } else if (byte == '\n') {
      out += "\\n";
    } else if (byte == '\r') {
      out += "\\r";
    } else if (byte == '\t') {
      out += "\\t";
    } else {
      appendHex(out, byte);
    }
  }
  return out;
}

bool LogEscape::isSafe(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i)
    if (isAsciiControl(static_cast<unsigned char>(text[i])) || startsC1Control(text, i)) return false;
  return true;
}

}  // namespace Zel

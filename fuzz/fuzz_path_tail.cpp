// Fuzzes path_tail with arbitrary paths and buffer sizes. The destination is
// a heap block of exactly the given size, so that AddressSanitizer sees any
// write past it; the result must be NUL-terminated inside the block, at most
// size - 1 characters long, and equal to the documented component. The same
// call made in place (destination == path) must give the same text.
#include <cstring>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include <zel/LoggingWrapper.h>

namespace {

bool isBlankOrSlash(char c) { return c == ' ' || c == '/'; }

// The last component as documented: leading blanks skipped; trailing blanks
// and slashes ignored, back to the second character at most; the component
// runs back to the nearest "/"; cut to size - 1 characters.
std::string refPathTail(const std::string& path, size_t size) {
  size_t begin = 0;
  while (begin < path.size() && path[begin] == ' ') ++begin;
  const std::string text = path.substr(begin);
  if (text.empty() || size == 1 || text == "/") return "";
  size_t last = text.size() - 1;
  while (last > 1 && isBlankOrSlash(text[last])) --last;
  size_t end;  // one past the component
  if (last <= 1 && isBlankOrSlash(text[last]) && text.size() > 1) {
    end = text[0] == '/' ? 0 : 1;
  } else {
    end = last + 1;
  }
  size_t start = end;
  while (start > 0 && text[start - 1] != '/') --start;
  return text.substr(start, std::min(end - start, size - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelFuzz::Reader reader(data, size);
  // Sizes from 0 to 65535; small ones are the interesting ones, so the high
  // byte is usually zero.
  const uint8_t high = reader.byte();
  const uint32_t bufferSize = (high < 0xf0 ? 0u : static_cast<uint32_t>(high & 0x0f) << 12) | reader.byte();
  const std::string rest = reader.rest();
  const std::string path = rest.c_str();  // path_tail reads a C string

  FUZZ_CHECK(Zel::path_tail(nullptr, path.c_str(), 10) == nullptr, "null destination");
  char scratch[4];
  FUZZ_CHECK(Zel::path_tail(scratch, nullptr, sizeof(scratch)) == nullptr, "null path");

  std::vector<char>* block = bufferSize > 0 ? new std::vector<char>(bufferSize, '\x7f') : nullptr;
  char* destination = block != nullptr ? block->data() : scratch;
  char* result = Zel::path_tail(destination, path.c_str(), bufferSize);
  if (bufferSize == 0) {
    FUZZ_CHECK(result == nullptr, "size 0 gives null");
    return 0;
  }
  FUZZ_CHECK(result == destination, "returns the destination");
  const void* nul = std::memchr(destination, '\0', bufferSize);
  FUZZ_CHECK(nul != nullptr, "NUL-terminated inside the buffer");
  const std::string tail(destination);
  FUZZ_CHECK(tail.size() <= bufferSize - 1, "at most size - 1 characters");
  FUZZ_CHECK(tail == refPathTail(path, bufferSize), "component [" + tail + "]");
  FUZZ_CHECK(tail.find('/') == std::string::npos, "a component has no slash");

  // In place: the path's own storage is the destination.
  std::vector<char> inPlace(path.begin(), path.end());
  inPlace.push_back('\0');
  const uint32_t inPlaceSize = std::min<uint32_t>(bufferSize, static_cast<uint32_t>(inPlace.size()));
  Zel::path_tail(inPlace.data(), inPlace.data(), inPlaceSize);
  FUZZ_CHECK(std::string(inPlace.data()) == refPathTail(path, inPlaceSize), "in place");
  delete block;
  return 0;
}

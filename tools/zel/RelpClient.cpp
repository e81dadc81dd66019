// RelpClient.cpp - RELP sessions over TCP.
#include "RelpClient.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <time.h>

#ifndef ZEL_TOOL_VERSION
#define ZEL_TOOL_VERSION "unknown"
#endif

namespace ZelTool {
namespace {

// Transaction numbers run from 1 to 999999999 and start again at 1.
const uint32_t MAX_TXNR = 999999999;
// A frame header is short; data longer than this is no answer to a syslog
// command and ends the session.
const size_t MAX_ANSWER = 128 * 1024;

int64_t nowMs() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool allDigits(const std::string& text) {
  if (text.empty() || text.size() > 10) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

}  // namespace

bool splitHostPort(const std::string& text, std::string& host, std::string& port) {
  size_t colon;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') return false;
    host = text.substr(1, close - 1);
    colon = close + 1;
  } else {
    colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    host = text.substr(0, colon);
    if (host.find(':') != std::string::npos) return false;
  }
  port = text.substr(colon + 1);
  if (host.empty() || !allDigits(port)) return false;
  const long number = std::strtol(port.c_str(), nullptr, 10);
  return number >= 1 && number <= 65535;
}

RelpClient::RelpClient(const std::string& host, const std::string& port, int timeoutMs,
                       std::function<void()> idle)
    : _host(host), _port(port), _timeoutMs(timeoutMs), _idle(std::move(idle)) {}

int RelpClient::waitFor(short events, int64_t deadline) {
  for (;;) {
    const int64_t left = deadline - nowMs();
    if (left <= 0) return 0;
    struct pollfd waiting = {_fd, events, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(std::min<int64_t>(left, IDLE_MS)));
    if (ready != 0) return ready;
    if (_idle) _idle();
  }
}

RelpClient::~RelpClient() { abort(); }

void RelpClient::abort() {
  if (_fd >= 0) ::close(_fd);
  _fd = -1;
  _input.clear();
}

uint32_t RelpClient::nextTxnr() {
  _txnr = _txnr >= MAX_TXNR ? 1 : _txnr + 1;
  return _txnr;
}

bool RelpClient::open(std::string& error) {
  abort();
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* addresses = nullptr;
  const int resolved = ::getaddrinfo(_host.c_str(), _port.c_str(), &hints, &addresses);
  if (resolved != 0) {
    error = "cannot resolve '" + _host + "': " + ::gai_strerror(resolved);
    return false;
  }
  error = "cannot connect to " + _host + ":" + _port;
  for (struct addrinfo* address = addresses; address != nullptr && _fd < 0; address = address->ai_next) {
    const int fd = ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                            address->ai_protocol);
    if (fd < 0) continue;
    int result = ::connect(fd, address->ai_addr, address->ai_addrlen);
    if (result != 0 && errno == EINPROGRESS) {
      int soError = ETIMEDOUT;
      socklen_t length = sizeof(soError);
      _fd = fd;
      const int ready = waitFor(POLLOUT, nowMs() + _timeoutMs);
      _fd = -1;
      if (ready == 1) ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &length);
      result = soError == 0 ? 0 : -1;
      errno = soError;
    }
    if (result != 0) {
      error = "cannot connect to " + _host + ":" + _port + ": " + std::strerror(errno);
      ::close(fd);
      continue;
    }
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    _fd = fd;
  }
  ::freeaddrinfo(addresses);
  if (_fd < 0) return false;

  _txnr = 0;
  const uint32_t txnr = nextTxnr();
  if (!sendFrame(txnr, "open", "relp_version=0\nrelp_software=zel," ZEL_TOOL_VERSION "\ncommands=syslog", error)) {
    abort();
    return false;
  }
  uint32_t answerTxnr = 0;
  std::string command;
  std::string data;
  if (!readFrame(answerTxnr, command, data, error)) {
    abort();
    return false;
  }
  if (command != "rsp" || answerTxnr != txnr || data.compare(0, 3, "200") != 0) {
    error = "the server refused the session: " + data.substr(0, data.find('\n'));
    abort();
    return false;
  }
  // The server lists the commands it takes; without syslog it takes nothing
  // of ours.
  if (data.find("commands=") != std::string::npos && data.find("syslog") == std::string::npos) {
    error = "the server does not take syslog messages";
    abort();
    return false;
  }
  return true;
}

namespace {

void appendFrame(std::string& out, uint32_t txnr, const std::string& command, const std::string& data) {
  out += std::to_string(txnr);
  out += ' ';
  out += command;
  out += ' ';
  out += std::to_string(data.size());
  if (!data.empty()) {
    out += ' ';
    out += data;
  }
  out += '\n';
}

}  // namespace

bool RelpClient::sendFrame(uint32_t txnr, const std::string& command, const std::string& data, std::string& error) {
  std::string frame;
  appendFrame(frame, txnr, command, data);
  return sendBytes(frame, error);
}

bool RelpClient::sendBytes(const std::string& frame, std::string& error) {
  size_t sent = 0;
  const int64_t deadline = nowMs() + _timeoutMs;
  while (sent < frame.size()) {
    const ssize_t n = ::send(_fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (deadline > nowMs() && waitFor(POLLOUT, deadline) >= 0) continue;
      error = "the server takes no more data (timed out)";
      return false;
    }
    error = std::string("the connection broke: ") + std::strerror(errno);
    return false;
  }
  return true;
}

bool RelpClient::readFrame(uint32_t& txnr, std::string& command, std::string& data, std::string& error) {
  const int64_t deadline = nowMs() + _timeoutMs;
  for (;;) {
    // TXNR SP COMMAND SP DATALEN [SP DATA] LF
    const size_t first = _input.find(' ');
    const size_t second = first == std::string::npos ? std::string::npos : _input.find(' ', first + 1);
    size_t lengthEnd = std::string::npos;
    if (second != std::string::npos) {
      lengthEnd = second + 1;
      while (lengthEnd < _input.size() && _input[lengthEnd] >= '0' && _input[lengthEnd] <= '9') ++lengthEnd;
      if (lengthEnd == _input.size()) lengthEnd = std::string::npos;
    }
    if (lengthEnd != std::string::npos) {
      const std::string txnrText = _input.substr(0, first);
      const std::string lengthText = _input.substr(second + 1, lengthEnd - second - 1);
      if (!allDigits(txnrText) || !allDigits(lengthText)) {
        error = "the server sent a malformed frame";
        return false;
      }
      const size_t length = static_cast<size_t>(std::strtoul(lengthText.c_str(), nullptr, 10));
      if (length > MAX_ANSWER) {
        error = "the server sent a frame too long for an answer";
        return false;
      }
      const size_t dataStart = length > 0 ? lengthEnd + 1 : lengthEnd;
      if (_input.size() >= dataStart + length + 1) {
        if ((length > 0 && _input[lengthEnd] != ' ') || _input[dataStart + length] != '\n') {
          error = "the server sent a malformed frame";
          return false;
        }
        txnr = static_cast<uint32_t>(std::strtoul(txnrText.c_str(), nullptr, 10));
        command = _input.substr(first + 1, second - first - 1);
        data = _input.substr(dataStart, length);
        _input.erase(0, dataStart + length + 1);
        return true;
      }
    } else if (_input.size() > 64 && second == std::string::npos) {
      error = "the server sent a malformed frame";
      return false;
    }
    if (deadline <= nowMs()) {
      error = "no answer from the server (timed out)";
      return false;
    }
    const int ready = waitFor(POLLIN, deadline);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    char buffer[16384];
    const ssize_t n = ::recv(_fd, buffer, sizeof(buffer), 0);
    if (n == 0) {
      error = "the server closed the connection";
      return false;
    }
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      error = std::string("the connection broke: ") + std::strerror(errno);
      return false;
    }
    _input.append(buffer, static_cast<size_t>(n));
    // Acknowledge at once: a server that writes its answers one by one with
    // Nagle's algorithm on holds back the next answers until our TCP ACK
    // arrives, which the kernel would otherwise delay by up to 40 ms. The
    // kernel clears this setting now and then, hence after every read.
    const int on = 1;
    (void)::setsockopt(_fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
  }
}

bool RelpClient::sendAll(const std::vector<std::string>& messages, size_t window, size_t& acknowledged,
                         std::string& error) {
  acknowledged = 0;
  if (_fd < 0) {
    error = "no session";
    return false;
  }
  if (window == 0) window = 1;
  // Answers may come in any order; a message counts as delivered once it
  // and every message before it are acknowledged.
  std::map<uint32_t, size_t> outstanding;  // txnr -> index
  std::vector<bool> answered(messages.size(), false);
  size_t next = 0;
  while (acknowledged < messages.size()) {
    // All the window allows, in one write.
    std::string frames;
    while (next < messages.size() && outstanding.size() < window) {
      const uint32_t txnr = nextTxnr();
      appendFrame(frames, txnr, "syslog", messages[next]);
      outstanding[txnr] = next++;
    }
    if (!frames.empty() && !sendBytes(frames, error)) {
      abort();
      return false;
    }
    uint32_t txnr = 0;
    std::string command;
    std::string data;
    if (!readFrame(txnr, command, data, error)) {
      abort();
      return false;
    }
    if (command == "serverclose") {
      error = "the server ended the session";
      abort();
      return false;
    }
    const auto it = outstanding.find(txnr);
    if (command != "rsp" || it == outstanding.end()) {
      error = "the server sent an unexpected frame: " + std::to_string(txnr) + " " + command;
      abort();
      return false;
    }
    if (data.compare(0, 3, "200") != 0) {
      error = "the server refused a message: " + data.substr(0, data.find('\n'));
      abort();
      return false;
    }
    answered[it->second] = true;
    outstanding.erase(it);
    while (acknowledged < messages.size() && answered[acknowledged]) ++acknowledged;
  }
  return true;
}

void RelpClient::close() {
  if (_fd < 0) return;
  std::string error;
  const uint32_t txnr = nextTxnr();
  if (sendFrame(txnr, "close", "", error)) {
    uint32_t answerTxnr = 0;
    std::string command;
    std::string data;
    // The answer to close, possibly after a serverclose; anything else ends
    // the wait too.
    for (int i = 0; i < 4 && readFrame(answerTxnr, command, data, error); ++i)
      if (command == "rsp" && answerTxnr == txnr) break;
  }
  abort();
}

}  // namespace ZelTool

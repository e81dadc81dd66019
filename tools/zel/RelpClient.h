// RelpClient.h - the client side of RELP, the acknowledged syslog transport,
// spoken directly over a TCP socket.
//
// A RELP session is a sequence of frames "TXNR SP COMMAND SP DATALEN
// [SP DATA] LF" in both directions: the client opens the session with
// "open" and its offers (relp_version, relp_software, commands=syslog),
// sends each message as a "syslog" command, and the server answers every
// command with "rsp" and the same transaction number, "200 OK" on success.
// "close" ends the session; the server may announce its own end with
// "serverclose". Several commands may be outstanding; the answers carry
// their numbers, so acknowledged messages are known one by one.
//
// Only what the shipper needs: one session at a time, syslog messages only,
// no TLS. Blocking calls with time limits; not thread-safe.
#ifndef ZEL_TOOL_RELP_CLIENT_H
#define ZEL_TOOL_RELP_CLIENT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ZelTool {

class RelpClient {
 public:
  // `idle` is called about every IDLE_MS while a call waits for the network
  // (the shipper keeps the log's files open meanwhile).
  RelpClient(const std::string& host, const std::string& port, int timeoutMs, std::function<void()> idle);
  static const int IDLE_MS = 100;
  ~RelpClient();
  RelpClient(const RelpClient&) = delete;
  RelpClient& operator=(const RelpClient&) = delete;

  // Connects and opens a session. False with `error` on any failure.
  bool open(std::string& error);
  bool isOpen() const { return _fd >= 0; }

  // Sends the messages as syslog commands, keeping at most `window` of them
  // unanswered, and waits for the answers. `acknowledged` is set to how many
  // of the messages, counted from the first, the server has acknowledged;
  // false with `error` when the session broke or a message was refused
  // before all were acknowledged (the session is then closed).
  bool sendAll(const std::vector<std::string>& messages, size_t window, size_t& acknowledged, std::string& error);

  // Ends the session politely (close, its answer) and disconnects.
  void close();

  // Disconnects without a word.
  void abort();

 private:
  bool sendFrame(uint32_t txnr, const std::string& command, const std::string& data, std::string& error);
  bool sendBytes(const std::string& bytes, std::string& error);
  // Reads the next frame; false with `error` on a broken session or timeout.
  bool readFrame(uint32_t& txnr, std::string& command, std::string& data, std::string& error);
  uint32_t nextTxnr();
  // poll() on our socket in slices of IDLE_MS, calling _idle between them,
  // until ready or the deadline; the result of the last poll.
  int waitFor(short events, int64_t deadline);

  std::string _host;
  std::string _port;
  int _timeoutMs;
  std::function<void()> _idle;
  int _fd = -1;
  uint32_t _txnr = 0;
  std::string _input;  // received bytes not yet taken apart
};

// "host:port", "[v6 address]:port"; false on anything else.
bool splitHostPort(const std::string& text, std::string& host, std::string& port);

}  // namespace ZelTool

#endif  // ZEL_TOOL_RELP_CLIENT_H

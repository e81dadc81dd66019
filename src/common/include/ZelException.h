// ZelException.h - the framework's exception classes.
//
// Zel::ZelException carries a reason text and a ZelReturnT code; what()
// returns "<ClassName>(<reason>)". Reasons are formatted printf-style into a
// 1024-byte buffer (longer texts are cut at 1023 characters), or composed from
// a cause: "<cause's reason>,<formatted text>", so chains of causes read as a
// comma-separated list, oldest first.
//
// Return codes, deliberately asymmetric:
//   ZelException(reason) / ZelException(format, ...)       -> ZelFailure (-1)
//   ZelException(code, ...)                                -> code
//   ZelException(cause, format, ...)                       -> cause's code
//   Derived(std::string reason)                            -> ZelFailure (-1)
//   Derived(format, ...) and Derived(cause, format, ...)   -> ZelOk (0)
//
// Assignment copies the text (buffer, name, reason) but keeps the target's
// own return code. Exceptions are values: no shared state, no locking.
#ifndef ZEL_EXCEPTION_H
#define ZEL_EXCEPTION_H

#include <cstdarg>
#include <exception>
#include <string>

#include "ZelExport.h"
#include "ZelReturn.h"

namespace Zel {

class ZEL_API ZelException : public std::exception {
 public:
  ZelException();
  explicit ZelException(const std::string& reason);
  ZelException(ZelReturnT code, const std::string& reason);
  explicit ZelException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  ZelException(ZelReturnT code, const char* format, ...) __attribute__((format(printf, 3, 4)));
  ZelException(ZelException& cause, const char* format, ...) __attribute__((format(printf, 3, 4)));
  ZelException(const ZelException& other);
  ZelException& operator=(const ZelException& other);
  ~ZelException() override;

  const char* what() const noexcept override;

  // Formats `format` with the arguments of the variadic constructor that is
  // running into the 1024-byte buffer and makes it the reason. Called at any
  // other time there are no arguments to format with, so the format is then
  // taken as literal text (cut at 1023 characters) rather than read past.
  // Does not rebuild the what string.
  virtual void setReason(const char* format);
  // setReason(format), then reason = cause's reason + "," + buffer.
  virtual void setReason(ZelException& cause, const char* format);

  // The outcome carried by the exception.
  ZelReturnT getReturnCode() const { return _returnCode; }
  // The reason text alone, without the class name.
  const std::string& getReason() const { return _reason; }

 protected:
  enum { BUFFER_SIZE = 1024 };

  // what = name + "(" + reason + ")".
  void setWhatString();
  // Starts/ends the window in which setReason(const char*) may read _args.
  void beginArgs() { _argsActive = true; }
  void endArgs();
  // Constructor helper for derived classes: name, reason from format and
  // arguments (optionally after a cause's reason), what string.
  void composeFromArgs(const char* name, ZelException* cause, const char* format);

  char _buffer[BUFFER_SIZE];
  std::string _name;
  std::string _whatString;
  std::string _reason;
  va_list _args;
  ZelReturnT _returnCode;

 private:
  bool _argsActive;  // true only while a variadic constructor has _args started
};

class ZEL_API ZelInternalErrorException : public ZelException {
 public:
  explicit ZelInternalErrorException(std::string reason);
  explicit ZelInternalErrorException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  ZelInternalErrorException(ZelException& cause, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  ZelInternalErrorException(const ZelInternalErrorException&) = default;
  ZelInternalErrorException& operator=(const ZelInternalErrorException&) = default;
  ~ZelInternalErrorException() override;
};

class ZEL_API ZelInternalException : public ZelException {
 public:
  explicit ZelInternalException(std::string reason);
  explicit ZelInternalException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  ZelInternalException(ZelException& cause, const char* format, ...) __attribute__((format(printf, 3, 4)));
  ZelInternalException(const ZelInternalException&) = default;
  ZelInternalException& operator=(const ZelInternalException&) = default;
  ~ZelInternalException() override;
};

class ZEL_API MandatoryAlwaysRunningStartFailedException : public ZelException {
 public:
  explicit MandatoryAlwaysRunningStartFailedException(std::string reason);
  explicit MandatoryAlwaysRunningStartFailedException(const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  MandatoryAlwaysRunningStartFailedException(ZelException& cause, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  MandatoryAlwaysRunningStartFailedException(const MandatoryAlwaysRunningStartFailedException&) = default;
  MandatoryAlwaysRunningStartFailedException& operator=(const MandatoryAlwaysRunningStartFailedException&) =
      default;
  ~MandatoryAlwaysRunningStartFailedException() override;
};

}  // namespace Zel

#endif  // ZEL_EXCEPTION_H

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

#include <zel/ZelExport.h>
#include <zel/ZelReturn.h>

namespace Zel {

class ZEL_API ZelException : public std::exception {
 public:
  // No name and no reason: what() is "", the code ZelOk.
  ZelException();
  // The reason as given; code ZelFailure.
  explicit ZelException(const std::string& reason);
  // The reason as given; the given code.
  ZelException(ZelReturnT code, const std::string& reason);
  // A printf-style reason: ZelException("bad %d", 5) -> "ZelException(bad 5)"; code ZelFailure.
  explicit ZelException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // A printf-style reason; the given code.
  ZelException(ZelReturnT code, const char* format, ...) __attribute__((format(printf, 3, 4)));
  // Reason "<cause's reason>,<formatted text>"; the cause's code.
  ZelException(ZelException& cause, const char* format, ...) __attribute__((format(printf, 3, 4)));
  // A copy: texts and code.
  ZelException(const ZelException& other);
  // Copies the texts (buffer, name, reason) and keeps this exception's own code.
  ZelException& operator=(const ZelException& other);
  ~ZelException() override;

  // "<ClassName>(<reason>)", e.g. "ZelException(no memory)"; "" when default-constructed.
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
  // Starts/ends the window in which setReason(const char*) may read the
  // variadic arguments.
  void beginArgs() { _argsActive = true; }
  void endArgs();  // ends the window; the arguments can no longer be read
  // Constructor helper for derived classes: name, reason from format and
  // arguments (optionally after a cause's reason), what string.
  void composeFromArgs(const char* name, ZelException* cause, const char* format);

  char _buffer[BUFFER_SIZE];  // the text last formatted by setReason(const char*)
  std::string _name;          // class name shown by what()
  std::string _whatString;    // what() returns it: name + "(" + reason + ")"
  std::string _reason;        // the reason text
  va_list _args;              // arguments of the variadic constructor that is running
  ZelReturnT _returnCode;     // the outcome carried

 private:
  bool _argsActive;  // true only while a variadic constructor has _args started
};

// An internal error, such as a misused ZelThreadLock. Texts as ZelException;
// codes as listed at the top of this file.
class ZEL_API ZelInternalErrorException : public ZelException {
 public:
  // The reason as given; code ZelFailure.
  explicit ZelInternalErrorException(std::string reason);
  // A printf-style reason; code ZelOk.
  explicit ZelInternalErrorException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Reason "<cause's reason>,<formatted text>"; code ZelOk (the cause's code is not taken over).
  ZelInternalErrorException(ZelException& cause, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  ZelInternalErrorException(const ZelInternalErrorException&) = default;  // a copy: texts and code
  ZelInternalErrorException& operator=(const ZelInternalErrorException&) = default;  // texts only
  ~ZelInternalErrorException() override;
};

// An internal failure of a component. Texts as ZelException; codes as
// listed at the top of this file.
class ZEL_API ZelInternalException : public ZelException {
 public:
  // The reason as given; code ZelFailure.
  explicit ZelInternalException(std::string reason);
  // A printf-style reason; code ZelOk.
  explicit ZelInternalException(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Reason "<cause's reason>,<formatted text>"; code ZelOk (the cause's code is not taken over).
  ZelInternalException(ZelException& cause, const char* format, ...) __attribute__((format(printf, 3, 4)));
  ZelInternalException(const ZelInternalException&) = default;  // a copy: texts and code
  ZelInternalException& operator=(const ZelInternalException&) = default;  // texts only
  ~ZelInternalException() override;
};

// A component that must always run could not be started. Texts as
// ZelException; codes as listed at the top of this file.
class ZEL_API MandatoryAlwaysRunningStartFailedException : public ZelException {
 public:
  // The reason as given; code ZelFailure.
  explicit MandatoryAlwaysRunningStartFailedException(std::string reason);
  // A printf-style reason; code ZelOk.
  explicit MandatoryAlwaysRunningStartFailedException(const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  // Reason "<cause's reason>,<formatted text>"; code ZelOk (the cause's code is not taken over).
  MandatoryAlwaysRunningStartFailedException(ZelException& cause, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  // A copy: texts and code.
  MandatoryAlwaysRunningStartFailedException(const MandatoryAlwaysRunningStartFailedException&) = default;
  // Copies the texts and keeps this exception's own code.
  MandatoryAlwaysRunningStartFailedException& operator=(const MandatoryAlwaysRunningStartFailedException&) =
      default;
  ~MandatoryAlwaysRunningStartFailedException() override;
};

}  // namespace Zel

#endif  // ZEL_EXCEPTION_H

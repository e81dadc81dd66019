#include <zel/ZelException.h>

#include <cstdio>
#include <cstring>

namespace Zel {

ZelException::ZelException() : _returnCode(ZelOk), _argsActive(false) { _buffer[0] = '\0'; }

ZelException::ZelException(const std::string& reason)
    : _name("ZelException"), _reason(reason), _returnCode(ZelFailure), _argsActive(false) {
  _buffer[0] = '\0';
  setWhatString();
}

ZelException::ZelException(ZelReturnT code, const std::string& reason)
    : _name("ZelException"), _reason(reason), _returnCode(code), _argsActive(false) {
  _buffer[0] = '\0';
  setWhatString();
}

ZelException::ZelException(const char* format, ...) : _returnCode(ZelFailure), _argsActive(false) {
  va_start(_args, format);
  beginArgs();
  composeFromArgs("ZelException", nullptr, format);
}

ZelException::ZelException(ZelReturnT code, const char* format, ...) : _returnCode(code), _argsActive(false) {
  va_start(_args, format);
  beginArgs();
  composeFromArgs("ZelException", nullptr, format);
}

ZelException::ZelException(ZelException& cause, const char* format, ...)
    : _returnCode(cause._returnCode), _argsActive(false) {
  va_start(_args, format);
  beginArgs();
  composeFromArgs("ZelException", &cause, format);
}

ZelException::ZelException(const ZelException& other)
    : std::exception(other),
      _name(other._name),
      _whatString(other._whatString),
      _reason(other._reason),
      _returnCode(other._returnCode),
      _argsActive(false) {
  std::memcpy(_buffer, other._buffer, sizeof(_buffer));
}

ZelException& ZelException::operator=(const ZelException& other) {
  if (this == &other) return *this;
  std::memcpy(_buffer, other._buffer, sizeof(_buffer));
  _name = other._name;
  _reason = other._reason;
  setWhatString();
  return *this;
}

ZelException::~ZelException() = default;

const char* ZelException::what() const noexcept { return _whatString.c_str(); }

void ZelException::setReason(const char* format) {
  if (format == nullptr) format = "";
  if (_argsActive) {
    va_list copy;
    va_copy(copy, _args);
    std::vsnprintf(_buffer, sizeof(_buffer), format, copy);
    va_end(copy);
  } else {
    std::snprintf(_buffer, sizeof(_buffer), "%s", format);
  }
  _reason = _buffer;
}

void ZelException::setReason(ZelException& cause, const char* format) {
  // An exception escaping here would leave a half-built object behind: the
  // process ends instead.
  try {
    setReason(format);
  } catch (...) {
    std::terminate();
  }
  _reason = cause._reason;
  _reason += ",";
  _reason += _buffer;
}

void ZelException::setWhatString() {
  _whatString = _name;
  _whatString += "(";
  _whatString += _reason;
  _whatString += ")";
}

void ZelException::endArgs() {
  if (_argsActive) {
    _argsActive = false;
    va_end(_args);
  }
}

void ZelException::composeFromArgs(const char* name, ZelException* cause, const char* format) {
  try {
    _name = name;
    if (cause != nullptr) {
      setReason(*cause, format);
    } else {
      setReason(format);
    }
    setWhatString();
  } catch (...) {
    endArgs();
    throw;
  }
  endArgs();
}

// The derived classes share one shape: the string constructor goes through
// the base's string constructor (code -1) and renames; the variadic ones
// start from the default base (code 0) and compose the reason.
#define ZEL_DEFINE_DERIVED_EXCEPTION(Class)                                   \
  Class::Class(std::string reason) : ZelException(reason) {                   \
    _name = #Class;                                                           \
    setWhatString();                                                          \
  }                                                                           \
  Class::Class(const char* format, ...) : ZelException() {                    \
    va_start(_args, format);                                                  \
    beginArgs();                                                              \
    composeFromArgs(#Class, nullptr, format);                                 \
  }                                                                           \
  Class::Class(ZelException& cause, const char* format, ...) : ZelException() { \
    va_start(_args, format);                                                  \
    beginArgs();                                                              \
    composeFromArgs(#Class, &cause, format);                                  \
  }                                                                           \
  Class::~Class() = default;

ZEL_DEFINE_DERIVED_EXCEPTION(ZelInternalErrorException)
ZEL_DEFINE_DERIVED_EXCEPTION(ZelInternalException)
ZEL_DEFINE_DERIVED_EXCEPTION(MandatoryAlwaysRunningStartFailedException)

#undef ZEL_DEFINE_DERIVED_EXCEPTION

}  // namespace Zel

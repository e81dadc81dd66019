// ZelReturn.h - the framework's return codes and their printable names.
//
// ZelReturnT is the outcome of every operation at the framework boundary:
// 0 and the positive values are successes or soft outcomes, the negative
// values failures. Zel::ZelReturn::strerror names each code; the returned
// texts are static and never freed. Thread-safe: no state.
#ifndef ZEL_RETURN_H
#define ZEL_RETURN_H

#include <cstdint>

#include <zel/ZelExport.h>

// Outcome of an operation at the framework boundary (32 bits, signed).
enum ZelReturnT : int32_t {
  ZelOk = 0,
  ZelTryAgain = 1,
  ZelNotActive = 2,
  ZelFailure = -1,
  ZelNotExist = -2,
  ZelAlreadyExist = -3,
  ZelAborted = -4,
  ZelObjectLocked = -5,
  ZelPrepareFailed = -6,
  ZelCommitFailed = -7,
  ZelInvalidArgument = -8,
  ZelValidationFailed = -9,
  ZelNoResources = -10,
  ZelTimeOut = -11
};

namespace Zel {

class ZEL_API ZelReturn {
 public:
  // The enumerator's own name: strerror(ZelNotExist) -> "ZelNotExist".
  // Any value outside the enumeration -> "Unknown return code".
  static const char* strerror(ZelReturnT code);
};

}  // namespace Zel

#endif  // ZEL_RETURN_H

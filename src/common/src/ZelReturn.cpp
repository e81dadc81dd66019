#include <zel/ZelReturn.h>

namespace Zel {

const char* ZelReturn::strerror(ZelReturnT code) {
  switch (code) {
    case ZelOk: return "ZelOk";
    case ZelTryAgain: return "ZelTryAgain";
    case ZelNotActive: return "ZelNotActive";
    case ZelFailure: return "ZelFailure";
    case ZelNotExist: return "ZelNotExist";
    case ZelAlreadyExist: return "ZelAlreadyExist";
    case ZelAborted: return "ZelAborted";
    case ZelObjectLocked: return "ZelObjectLocked";
    case ZelPrepareFailed: return "ZelPrepareFailed";
    case ZelCommitFailed: return "ZelCommitFailed";
    case ZelInvalidArgument: return "ZelInvalidArgument";
    case ZelValidationFailed: return "ZelValidationFailed";
    case ZelNoResources: return "ZelNoResources";
    case ZelTimeOut: return "ZelTimeOut";
  }
  return "Unknown return code";
}

}  // namespace Zel

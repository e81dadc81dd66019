// Version.cpp - the library's own version, fixed when it is compiled, so that
// a program can tell the library it runs with from the headers it was built
// against.
#include <zel/Version.h>

namespace Zel {

const char* libraryVersion() { return ZEL_COMMON_VERSION_STRING; }

unsigned libraryVersionNumber() { return ZEL_COMMON_VERSION; }

}  // namespace Zel

// ZelMgmtSpiThreadContext.h - the framework's interface portal and its thread
// context interface, as far as the library uses them.
//
// The portal hands out the framework's interfaces by identifier (a
// ZelMgmtSpiInterface_1 value naming component, interface and version). The
// thread context interface holds, for the calling thread, two lists of
// collected messages: log messages (kind 0) and northbound-interface messages
// (kind 1). Both records begin with the ZelMgmtSpiInterface_1 header, followed
// by plain function pointers in slot order that do not receive the record.
//
// The records and the message arrays belong to the framework; the library only
// calls through them. A message array handed out by getMessages stays valid
// until its handle is given back with releaseHandle.
#ifndef ZEL_MGMT_SPI_THREAD_CONTEXT_H
#define ZEL_MGMT_SPI_THREAD_CONTEXT_H

#include <cstddef>
#include <cstdint>

#include <zel/ZelMgmtSpiInterface.h>
#include <zel/ZelReturn.h>

extern "C" {

// The kinds of message list a thread context holds.
enum ZelMgmtSpiThreadContextMessageKindT : uint32_t {
  ZelMgmtSpiThreadContextLogMessages = 0,
  ZelMgmtSpiThreadContextNbiMessages = 1
};

// Opaque, pointer-sized handle through which one message list is read.
typedef uintptr_t ZelMgmtSpiThreadContextHandle_2T;

// The interface portal, version 3. Only its first operation is declared; the
// framework's record continues with further operations the library never
// reads, so this declaration is a prefix of it.
struct ZelMgmtSpiInterfacePortal_3 {
  ZelMgmtSpiInterface_1 header;  // names the interface
  // Looks up the interface named by `id` (passed by value) and stores it in
  // *result. Returns ZelNotExist (-2) when no such interface is present.
  ZelReturnT (*getInterface)(ZelMgmtSpiInterface_1 id, ZelMgmtSpiInterface_1** result);
};

// The thread context interface, version 2. Slots the library does not use are
// kept as generic function pointers so the used ones sit where the framework
// puts them.
struct ZelMgmtSpiThreadContext_2 {
  ZelMgmtSpiInterface_1 header;  // names the interface
  void (*unusedSlot4)();         // not used by the library
  void (*unusedSlot5)();         // not used by the library
  void (*unusedSlot6)();         // not used by the library
  // Empties the list of `kind` in the calling thread's context.
  ZelReturnT (*clearMessages)(uint32_t kind);
  void (*unusedSlot8)();  // not used by the library
  // Gives read access to the list of `kind`: *messages receives an array of
  // NUL-terminated texts ended by a null pointer (possibly just the null
  // pointer), valid until *handle is released.
  ZelReturnT (*getMessages)(uint32_t kind, ZelMgmtSpiThreadContextHandle_2T* handle, const char*** messages);
  // Gives back a handle obtained from getMessages.
  ZelReturnT (*releaseHandle)(ZelMgmtSpiThreadContextHandle_2T handle);
};

}  // extern "C"

static_assert(sizeof(ZelMgmtSpiThreadContextHandle_2T) == sizeof(void*), "handle is pointer-sized");
static_assert(sizeof(ZelReturnT) == 4, "operations return 32 bits");
static_assert(offsetof(ZelMgmtSpiInterfacePortal_3, getInterface) == 24, "portal layout: 4th member");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, unusedSlot4) == 24, "thread context layout: member 4");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, unusedSlot5) == 32, "thread context layout: member 5");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, unusedSlot6) == 40, "thread context layout: member 6");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, clearMessages) == 48, "thread context layout: member 7");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, unusedSlot8) == 56, "thread context layout: member 8");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, getMessages) == 64, "thread context layout: member 9");
static_assert(offsetof(ZelMgmtSpiThreadContext_2, releaseHandle) == 72, "thread context layout: member 10");
static_assert(sizeof(ZelMgmtSpiThreadContext_2) == 80, "thread context layout");

#endif  // ZEL_MGMT_SPI_THREAD_CONTEXT_H

// ZelMgmtSpiInterface.h - framework interface records used by the logging
// wrapper.
//
// Every interface the framework hands over is a plain record that begins with
// the three descriptor texts of ZelMgmtSpiInterface_1, followed by the
// interface's operations as plain function pointers in slot order. The
// records belong to the framework: the library reads them and calls through
// them, and never frees them.
#ifndef ZEL_MGMT_SPI_INTERFACE_H
#define ZEL_MGMT_SPI_INTERFACE_H

#include <cstddef>
#include <cstdint>

#include <zel/ZelReturn.h>

extern "C" {

// Header of every framework interface record.
struct ZelMgmtSpiInterface_1 {
  const char* componentName;     // component that provides the interface
  const char* interfaceName;     // name of the interface
  const char* interfaceVersion;  // e.g. "1", "2"
};

// The log interface handed to LoggingWrapper::set_log_spi. Its write
// operation receives (1, level, facility, finished record text) and returns
// 0 on success.
struct ZelMgmtSpiLog_1 {
  ZelMgmtSpiInterface_1 header;  // names the interface
  // Writes one record: (1, level, facility, text); 0 means success.
  int32_t (*logWrite)(uint32_t one, uint32_t level, uint32_t facility, const char* text);
};

}  // extern "C"

static_assert(offsetof(ZelMgmtSpiInterface_1, componentName) == 0, "interface header layout");
static_assert(offsetof(ZelMgmtSpiInterface_1, interfaceName) == 8, "interface header layout");
static_assert(offsetof(ZelMgmtSpiInterface_1, interfaceVersion) == 16, "interface header layout");
static_assert(sizeof(ZelMgmtSpiInterface_1) == 24, "interface header layout");
static_assert(offsetof(ZelMgmtSpiLog_1, logWrite) == 24, "log interface layout");

#endif  // ZEL_MGMT_SPI_INTERFACE_H

// Compiled (not run) by the test LogMacros.FormatIsChecked: the record macros
// must pass their format and arguments to the compiler's printf checks. With
// ZEL_BAD_FORMAT defined each macro gets an argument its format does not
// take, and the compilation must fail with a format warning.
#include <zel/LoggingWrapper.h>

void formatCheckedSite(int count, const char* name) {
#ifdef ZEL_BAD_FORMAT
  ZEL_LOG_ERROR("count %s", count);
  ZEL_DEBUG("name %d", name);
#else
  ZEL_LOG_EMERG("count %d of %s", count, name);
  ZEL_LOG_ALERT("count %d of %s", count, name);
  ZEL_LOG_CRIT("count %d of %s", count, name);
  ZEL_LOG_ERROR("count %d of %s", count, name);
  ZEL_LOG_WARNING("count %d of %s", count, name);
  ZEL_LOG_NOTICE("count %d of %s", count, name);
  ZEL_LOG_INFO("no arguments");
  ZEL_DEBUG("name %s", name);
#endif
}

/* A C host: starts the library, logs one message and shuts it down. */
#include <zt/init.h>
#include <zt/log.h>

int main(void) {
  ZT_InitSubSystems();
  ZTLogMessage("consumer", "main", 0, ZT_LOG_FORMAT, 1, "consumer %s says %d", "c", 1);
  ZT_DeInitSubSystems();
  return 0;
}

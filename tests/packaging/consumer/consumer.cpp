// A C++ host: the same calls, so the headers' C linkage is exercised.
#include <zt/init.h>
#include <zt/log.h>

int main() {
  ZT_InitSubSystems();
  ZTLogMessage("consumer", "main", 0, ZT_LOG_FORMAT, 1, "consumer %s says %d", "c++", 1);
  ZT_DeInitSubSystems();
  return 0;
}

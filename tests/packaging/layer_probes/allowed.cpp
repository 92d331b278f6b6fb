// Compiled as a raster file: its own folder, foundation and their public
// headers are all visible. The control for the probes that must fail.
#include <zt/log.h>
#include <zt/scanlinebuf.h>

#include "foundation/internal.h"
#include "raster/buf_internal.h"
int zt_layer_probe_allowed;

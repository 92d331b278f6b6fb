// Compiled as a colour file: raster is beside colour, not below it.
#include "raster/buf_internal.h"
int zt_layer_probe_sideways;

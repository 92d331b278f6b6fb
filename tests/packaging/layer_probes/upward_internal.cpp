// Compiled as a raster file: screening's internals are above raster, so this
// must not compile.
#include "screening/resample_internal.h"
int zt_layer_probe_upward_internal;

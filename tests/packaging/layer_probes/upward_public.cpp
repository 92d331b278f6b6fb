// Compiled as a raster file: the resample family is screening's, so its public
// header must not be found either.
#include <zt/resample.h>
int zt_layer_probe_upward_public;

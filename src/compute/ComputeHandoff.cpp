// The compute-cache suite is not built yet: MC_SP_Birth publishes nothing.
#include "mc/MC_Module.h"

void MC_SP_Birth() {}

// Everything a host includes to use the cache.
#pragma once

#include "mc/GenericMCComputeStuffData.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_Errors.h"
#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"

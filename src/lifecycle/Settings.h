// The debug tuning entries, each read once per process from the host's debug database on first
// use, with its default when absent or unparsable. Thread-safety: any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace mc_settings {
bool UseMediaMap();                    // "MC.UseMediaMap1", default true
double QuilletCacheLimitMultiplier();  // "Graphics.DefaultMCCacheLimitForQuilletsMultiplier", 0.1
double MinSizeToPurgeLimitRatio();     // "ZK.MinMCSizeToPurgeLimitRatioR", 0.1
int32_t DebugSleepMsSetStuffData();    // "ZK.DebugSleepTimeInMs_MCSetStuffDataR", 0
double LowPriorityFactor();            // "ZK.MC.LowPriorityFactorR", 2.0
int32_t ReadDiskDelayMs();             // "ZK.MC.ReadDiskDelayInMsR", 0
int32_t WriteDiskDelayMs();            // "ZK.MC.WriteDiskDelayInMsR", 0

// Makes every entry (and the quillet feature answer) be read again on next use. Tests only.
void ResetForTesting();
// Moves with each reset; caches outside this file compare against it.
uint64_t Generation();

// Parsers used for the entries (exposed for tests).
// Decimal digits only; nothing when empty, malformed or beyond a signed 32-bit integer.
std::optional<int32_t> ParseInt32(std::string_view text);
std::optional<double> ParseDouble(std::string_view text);
// "true"/"false"/"1"/"0"/"yes"/"no" (any case).
std::optional<bool> ParseBool(std::string_view text);
}  // namespace mc_settings

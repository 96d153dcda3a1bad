// A seam of the tick clock, for tests of code that measures time with GetTickCount: a
// bias added to every value, so that a test can move the count next to its 32-bit wrap or
// let time pass without sleeping.
#pragma once

#include "VelmoraPlatform.h"

namespace velmora_platform {

// GetTickCount() and GetTickCount64() return the monotonic count plus this bias.
VELMORA_PLATFORM_API void SetTickCountBias(uint64_t nBias);
VELMORA_PLATFORM_API uint64_t GetTickCountBias();
// Adds nMilliseconds to the bias: the clock jumps forward.
VELMORA_PLATFORM_API void AdvanceTickCount(uint64_t nMilliseconds);

}  // namespace velmora_platform

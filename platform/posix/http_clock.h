// The layer's clock: milliseconds that only go forward, a few milliseconds coarse because every
// request reads it, and movable by tests. Also the text of the Date field. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace posix {

uint64_t ClockMs();
void AdvanceClock(uint32_t milliseconds);

// "Sun, 06 Nov 1994 08:49:37 GMT": made once a second for each thread, and its until the next call.
std::string_view DateText();

}  // namespace posix

// The processors that this process may run on: a service may be bound to some of the machine's
// (taskset, CPUAffinity=, a container's cpuset). Looked at once. Internal to the layer; any thread.
#pragma once

namespace posix {

// At least 1.
int UsableProcessors();

// The place of a processor among those, by its number in the system; one that is not among them has
// its number.
int ProcessorPlace(int number);

}  // namespace posix

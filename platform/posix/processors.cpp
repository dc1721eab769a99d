#include "platform/posix/processors.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <thread>

namespace posix {
namespace {

struct CUsable {
    // With more processors than the set can name the call fails; then all of them count.
    CUsable() {
        cpu_set_t set;
        const bool known = sched_getaffinity(0, sizeof set, &set) == 0;
        for (int number = 0; number < CPU_SETSIZE; ++number) {
            const bool usable = known && CPU_ISSET(static_cast<size_t>(number), &set);
            places[static_cast<size_t>(number)] = usable ? count++ : number;
        }
        if (!known) count = static_cast<int>(std::thread::hardware_concurrency());
        count = std::max(count, 1);
    }
    std::array<int, CPU_SETSIZE> places;
    int count = 0;
};

const CUsable& Usable() {
    static const CUsable usable;
    return usable;
}

}  // namespace

int UsableProcessors() {
    return Usable().count;
}

int ProcessorPlace(int number) {
    const auto& places = Usable().places;
    const auto index = static_cast<size_t>(number);
    return index < places.size() ? places[index] : number;
}

}  // namespace posix

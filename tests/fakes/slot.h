// Which entry of its class's table of virtual operations a member function is: other modules call
// by it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A pointer to a virtual member function holds its slot.
template <class Function>
size_t Slot(Function function) {
    uintptr_t words[2];
    static_assert(sizeof(words) == sizeof(function));
    std::memcpy(words, &function, sizeof(words));
    return (words[0] - 1) / sizeof(void*);
}

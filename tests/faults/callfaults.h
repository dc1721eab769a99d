// Failure of calls by number: the system calls that the library makes on the way of a request (but
// for the two of the HTTP interface, which the stand-in for that fails). A test that links this
// wraps them. Any thread; one test at a time.
#pragma once

#include <cstdint>
#include <string>

class CCallFaults {
public:
    // From now on counts calls; the one that comes after `skipped` others fails, once.
    static void FailAfter(uint64_t skipped);
    // Ends the counting; whether a call failed.
    static bool Failed();
    // The name of the call that failed last.
    static std::string Name();

    // --- for whoever makes calls fail: counts one, and tells whether it is the one ---
    static bool Hit(const char* name);
};

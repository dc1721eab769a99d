// A class of another module of the host, derived from the exported one, and what both compilers
// must agree on. Included by a source for the platform's usual compiler and by one for ours.
#pragma once

#include "zemhttpd/entry/entrypoint.h"

#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class CHostScope : public CEntryPoint {
public:
    using CEntryPoint::CEntryPoint;
    using CEntryPoint::operator=;
    CHostScope() = default;
    CHostScope(const CHostScope& other) = default;

    // Bytes from the object's start; the table of operations is at 0.
    static constexpr void CheckLayout() {
        static_assert(__builtin_offsetof(CHostScope, m_function) == 8);
        static_assert(__builtin_offsetof(CHostScope, m_file) == 264);
        static_assert(__builtin_offsetof(CHostScope, m_line) == 328);
        static_assert(__builtin_offsetof(CHostScope, m_reserved1) == 332);
        static_assert(__builtin_offsetof(CHostScope, m_startTick) == 336);
        static_assert(__builtin_offsetof(CHostScope, m_reserved2) == 340);
        static_assert(__builtin_offsetof(CHostScope, m_time) == 344);
        static_assert(__builtin_offsetof(CHostScope, m_logged) == 360);
        static_assert(__builtin_offsetof(CHostScope, m_result) == 364);
        static_assert(__builtin_offsetof(CHostScope, m_category) == 368);
        static_assert(__builtin_offsetof(CHostScope, m_chainId) == 372);
        static_assert(sizeof(CHostScope) == 376 && sizeof(CEntryPoint) == 376);
    }

    const WCHAR* Function() const { return m_function; }
    DWORD Category() const { return m_category; }
    DWORD ChainId() const { return m_chainId; }
};

extern "C" {

// Uses the class as a host would; 0, or the line of what went wrong.
int UseAsHost();
}

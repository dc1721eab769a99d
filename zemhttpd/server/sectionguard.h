// Holds a critical section for the length of a scope. Any thread.
#pragma once

#include "platform/platform.h"

class CSectionGuard {
public:
    explicit CSectionGuard(CRITICAL_SECTION& section) : m_section(section) {
        EnterCriticalSection(&m_section);
    }
    ~CSectionGuard() { LeaveCriticalSection(&m_section); }
    CSectionGuard(const CSectionGuard&) = delete;
    CSectionGuard& operator=(const CSectionGuard&) = delete;

private:
    CRITICAL_SECTION& m_section;
};

// The name of a thread, for debuggers. REQUIRES: included by platform.h.
#pragma once

// See platform/posix/sync.h. Some systems that this runs on export the call from one module only,
// so it is looked for; without it threads have no names.
inline void NameThisThread(const WCHAR* name) {
    using Call = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    const HMODULE module = GetModuleHandleW(TEXT("KernelBase.dll"));
    if (module == nullptr) return;
    void* const found = reinterpret_cast<void*>(GetProcAddress(module, "SetThreadDescription"));
    if (found != nullptr) reinterpret_cast<Call>(found)(GetCurrentThread(), name);
}

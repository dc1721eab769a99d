// Frame memory: one fixed reservation, handed out in contiguous page-aligned runs (module
// zemMemAllocator).
#pragma once

#include "platform/platform.h"

#include <cstddef>

#pragma GCC visibility push(default)

// What a channel needs of an allocator. Every operation may be called from any thread.
class IZemMemAllocator {
public:
    virtual ~IZemMemAllocator() = default;

    // Reserves size_bytes of address space; memory is taken from the system as runs are first used.
    // `reserved` is null. Returns S_OK, E_INVALIDARG (zero size, called twice) or E_OUTOFMEMORY.
    // REQUIRES: called before anything else.
    virtual HRESULT Initialize(size_t size_bytes, void* reserved) = 0;

    // A contiguous page-aligned run of at least size_bytes, or null when no such run is free:
    // nothing is allocated elsewhere instead. A size of 0 gives null. The contents are unspecified.
    virtual void* Allocate(size_t size_bytes) = 0;

    // Gives back a run that Allocate returned; null is ignored.
    virtual void Free(void* run) = 0;

    // Bytes that are handed out now, counted in whole pages. For counters and tear-down checks.
    virtual size_t BytesInUse() const = 0;
};

class CZemMemAllocator final : public IZemMemAllocator {
public:
    CZemMemAllocator();
    ~CZemMemAllocator() override;  // REQUIRES: every run came home
    CZemMemAllocator(const CZemMemAllocator&) = delete;
    CZemMemAllocator& operator=(const CZemMemAllocator&) = delete;

    HRESULT Initialize(size_t size_bytes, void* reserved) override;
    void* Allocate(size_t size_bytes) override;
    void Free(void* run) override;
    size_t BytesInUse() const override;

private:
    struct State;
    State* m_state;
};

#pragma GCC visibility pop

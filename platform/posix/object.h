// What stands behind a HANDLE: a reference-counted object in the process's handle table. Internal
// to the layer. A handle is a number (slot and generation), never an address: a closed, forged or
// null handle is recognised and refused with ERROR_INVALID_HANDLE. Any thread; looking a handle up
// is two atomic operations and takes no lock.
#pragma once

#include <atomic>
#include <utility>

#include "platform/posix/errors.h"

namespace posix {

enum class ObjectKind : uint8_t {
    Event,
    Semaphore,
    Thread,
    File,
    RegistryKey,
    EventSource,
    RequestQueue,
    CompletionPort,
};

class CWaitable;

// Created with one reference, which OpenHandle passes to the handle table. Derived classes that
// have handles name their kind as `static constexpr ObjectKind kKind`.
class CObject {
public:
    CObject(const CObject&) = delete;
    CObject& operator=(const CObject&) = delete;

    ObjectKind Kind() const { return m_kind; }
    void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void Release() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    // Runs once, on the thread that closes the handle, when no new look-up can find the object any
    // more but other threads may still be inside calls that use it. The place to cancel what they
    // wait for.
    virtual void OnClose() {}

    // The object as something to wait for, or null.
    virtual CWaitable* Waitable() { return nullptr; }

protected:
    explicit CObject(ObjectKind kind) : m_kind(kind) {}
    virtual ~CObject() = default;

private:
    std::atomic<int32_t> m_refs{1};
    const ObjectKind m_kind;
};

// A counted pointer to an object, for those that keep one longer than a call.
template <class T>
class CRef {
public:
    CRef() = default;
    explicit CRef(T* object) : m_object(object) {
        if (m_object) m_object->AddRef();
    }
    CRef(const CRef& other) : CRef(other.m_object) {}
    CRef(CRef&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    CRef& operator=(CRef other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~CRef() {
        if (m_object) m_object->Release();
    }
    // Takes over the reference that the object was created with.
    static CRef Adopt(T* object) {
        CRef ref;
        ref.m_object = object;
        return ref;
    }
    T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    T* m_object = nullptr;
};

// Enters the object in the table, which takes over the caller's reference (also when it fails).
// Null with ERROR_NO_SYSTEM_RESOURCES when the table (1,048,576 handles) is full or cannot grow.
HANDLE OpenHandle(CObject* object);

// Keeps the handle's object in place until UnpinHandle; null with ERROR_INVALID_HANDLE for anything
// that is not an open handle. A pinned handle may be closed: the object then goes with its last
// pin.
CObject* PinHandle(HANDLE handle);
void UnpinHandle(HANDLE handle);

// Closes the handle: false with ERROR_INVALID_HANDLE when it is not open.
bool CloseObjectHandle(HANDLE handle);

// Open handles in the process; exported for tests that count leaks.
[[gnu::visibility("default")]] size_t OpenHandleCount();

// The object of a handle for the length of one call; empty (with ERROR_INVALID_HANDLE as last
// error) when the handle is not open or names another kind of object.
template <class T>
class CPin {
public:
    explicit CPin(HANDLE handle) {
        CObject* object = PinHandle(handle);
        if (!object) return;
        if (object->Kind() != T::kKind) {
            UnpinHandle(handle);
            SetLastError(ERROR_INVALID_HANDLE);
            return;
        }
        m_handle = handle;
        m_object = static_cast<T*>(object);
    }
    CPin(const CPin&) = delete;
    CPin& operator=(const CPin&) = delete;
    ~CPin() {
        if (m_object) UnpinHandle(m_handle);
    }
    T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    HANDLE m_handle = nullptr;
    T* m_object = nullptr;
};

}  // namespace posix

// Threads and the calls queued to them. A thread's state is its own object's, so that a call can be
// queued as long as a handle is open; any other thread gets a state of its own at its first wait.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <new>

#include "platform/posix/pipesignal.h"
#include "platform/posix/waitable.h"

namespace posix {
namespace {

thread_local CThreadState* t_state = nullptr;
thread_local DWORD t_thread_id = 0;

class CThread final : public CObject, public CWaitable {
public:
    static constexpr ObjectKind kKind = ObjectKind::Thread;
    CThread(ThreadStart start, void* argument)
        : CObject(kKind), CWaitable(0, false), m_start(start), m_argument(argument) {}
    CWaitable* Waitable() override { return this; }

    // The error number of pthread_create.
    int Start(unsigned stack_size) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        if (stack_size != 0) {
            const size_t page = 4096;
            const size_t wanted = (size_t{stack_size} + page - 1) / page * page;
            const auto least = static_cast<size_t>(PTHREAD_STACK_MIN);
            pthread_attr_setstacksize(&attributes, wanted < least ? least : wanted);
        }
        AddRef();  // the running thread's own
        const int error = pthread_create(&m_thread, &attributes, Main, this);
        pthread_attr_destroy(&attributes);
        if (error != 0) Release();
        return error;
    }

    // A thread that was seen to end is gone, its thread-local objects included, when its handle is
    // closed.
    void OnClose() override {
        if (m_done.load(std::memory_order_acquire))
            pthread_join(m_thread, nullptr);
        else
            pthread_detach(m_thread);
    }

    DWORD Id() {
        uint32_t id = m_id.load(std::memory_order_acquire);
        for (; id == 0; id = m_id.load(std::memory_order_acquire))
            m_id.wait(0);
        return id;
    }
    DWORD ExitCode() const {
        return m_done.load(std::memory_order_acquire) ? m_exit_code : STILL_ACTIVE;
    }
    CThreadState& State() { return m_state; }

private:
    static void* Main(void* context) {
        auto* self = static_cast<CThread*>(context);
        BlockPipeSignalForGood();
        CThreadState::Adopt(&self->m_state);
        self->m_id.store(GetCurrentThreadId(), std::memory_order_release);
        self->m_id.notify_all();
        self->m_exit_code = self->m_start(self->m_argument);
        self->m_state.End();
        self->m_done.store(true, std::memory_order_release);
        self->Set(true);
        CThreadState::Adopt(nullptr);
        self->Release();
        return nullptr;
    }

    const ThreadStart m_start;
    void* const m_argument;
    pthread_t m_thread{};
    std::atomic<uint32_t> m_id{0};
    std::atomic<bool> m_done{false};
    DWORD m_exit_code = 0;
    CThreadState m_state;
};

}  // namespace

CThreadState& CThreadState::Current() {
    if (t_state) return *t_state;
    thread_local CThreadState own;
    return own;
}

void CThreadState::Adopt(CThreadState* state) {
    t_state = state;
}

bool CThreadState::Queue(PAPCFUNC routine, ULONG_PTR parameter) {
    {
        std::lock_guard guard(m_lock);
        if (m_ended) return false;
        m_apcs.push_back({routine, parameter});
        m_pending.fetch_add(1);
    }
    parker.Unpark();
    return true;
}

void CThreadState::RunApcs() {
    std::vector<CApc> apcs;
    for (;;) {
        {
            std::lock_guard guard(m_lock);
            apcs.clear();
            apcs.swap(m_apcs);
            m_pending.store(0);
        }
        if (apcs.empty()) return;
        for (const CApc& apc : apcs)
            apc.routine(apc.parameter);
    }
}

void CThreadState::End() {
    std::lock_guard guard(m_lock);
    m_ended = true;
    m_apcs.clear();
    m_pending.store(0);
}

}  // namespace posix

using namespace posix;

extern "C" {

uintptr_t _beginthreadex(void* security, unsigned stack_size, ThreadStart start, void* argument,
                         unsigned initflag, unsigned* thread_id) {
    if (security || initflag != 0 || !start) {
        errno = EINVAL;
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const CRef<CThread> thread = CRef<CThread>::Adopt(new CThread(start, argument));
    const int error = thread->Start(stack_size);
    if (error != 0) {
        errno = error;
        SetLastError(error == EAGAIN ? ERROR_NO_SYSTEM_RESOURCES : ERROR_INVALID_PARAMETER);
        return 0;
    }
    const DWORD id = thread->Id();
    if (thread_id) *thread_id = id;
    thread->AddRef();
    const HANDLE handle = OpenHandle(thread.Get());
    // Without a handle the thread runs all the same; the caller hears of the failure and nobody
    // waits for it.
    if (!handle) {
        thread->OnClose();
        errno = EAGAIN;
    }
    return reinterpret_cast<uintptr_t>(handle);
}

BOOL GetExitCodeThread(HANDLE thread, LPDWORD exit_code) {
    const CPin<CThread> pin(thread);
    if (!pin) return FALSE;
    if (!exit_code) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *exit_code = pin->ExitCode();
    return TRUE;
}

DWORD QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR parameter) {
    const CPin<CThread> pin(thread);
    if (!pin) return 0;
    if (!routine) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (!pin->State().Queue(routine, parameter)) {
        SetLastError(ERROR_GEN_FAILURE);
        return 0;
    }
    return 1;
}

DWORD GetCurrentThreadId() {
    if (t_thread_id == 0) t_thread_id = static_cast<DWORD>(syscall(SYS_gettid));
    return t_thread_id;
}

void NameThisThread(const WCHAR* name) {
    std::array<char, 16> narrow{};  // as many as the kernel keeps, with the NUL
    for (size_t i = 0; i + 1 < narrow.size() && name[i] != 0; ++i)
        narrow[i] = name[i] < 0x80 ? static_cast<char>(name[i]) : '?';
    pthread_setname_np(pthread_self(), narrow.data());
}

}  // extern "C"

// The sockets that a request queue listens on. They are registered one-shot and armed again after
// each round of accepts. Listeners live in storage that is never freed, like connections.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/posix/http_layout.h"
#include "platform/posix/port_object.h"

namespace posix {

class CRequestQueue;

class CListener final : public CPollTarget {
public:
    bool Claim(uint32_t) override { return true; }
    bool Run(CPacket& packet) override;

    // A free listener for the socket, which it takes over; null, with the Win32 error number, when
    // it cannot be watched.
    static CListener* Start(int fd, CRequestQueue* queue, CCompletionPort* port, ULONG* error);
    void Stop();
    // Accepts again after the process had run out of descriptors or memory.
    static void Resume(CCompletionPort* port);

private:
    void Arm();
    void Pause();
    void Tell(const char* what, int error);

    std::mutex m_lock;  // guards everything
    int m_fd = -1;
    CRequestQueue* m_queue = nullptr;  // not counted: the queue stops its listeners first
    CCompletionPort* m_port = nullptr;
    bool m_paused = false;
    bool m_told = false;  // that something is lacking
};

// Opens the port on every address of the list, for the CListenPort that comes to listen there. Any
// thread. Win32 error number; then nothing was opened.
ULONG ReservePort(uint16_t port);

// One port, on every address of the listen-only list.
class CListenPort {
public:
    CListenPort() = default;
    CListenPort(const CListenPort&) = delete;
    ~CListenPort() { Stop(); }

    // Win32 error number.
    ULONG Start(uint16_t port, CRequestQueue* queue, CCompletionPort* completion_port);
    void Stop();
    uint16_t Asked() const { return m_asked; }
    uint16_t Bound() const { return m_bound; }

private:
    ULONG Bind(const CSocketAddress& address, CRequestQueue* queue, CCompletionPort* port);

    uint16_t m_asked = 0;
    uint16_t m_bound = 0;
    std::vector<CListener*> m_listeners;
};

// The addresses to listen on: those of the registry value ListenOnlyList, or else all.
std::vector<CSocketAddress> ListenAddresses();

}  // namespace posix

// The packets that wait in a completion port, first in, first out. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>

#include "platform/posix/errors.h"

namespace posix {

struct CPacket {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    DWORD error = NO_ERROR;  // of a failed operation
};

// An operation's packet lies in the operation's OVERLAPPED, which is the interface's until the
// packet is taken or the port is gone: that an operation has ended is told without memory. A
// packet of the caller's own only names an OVERLAPPED, be it one or not, and needs a place.
class CPacketList {
public:
    // Places that are there from the beginning; what more are needed are made, and kept. A server
    // with 1500 requests in work, each of which may be passed on to another thread, needs no more.
    static constexpr size_t kReserve = 2048;

    CPacketList();
    ~CPacketList();
    CPacketList(const CPacketList&) = delete;
    CPacketList& operator=(const CPacketList&) = delete;

    // The end of an operation; packet.overlapped is the operation's.
    void Complete(const CPacket& packet);
    // A packet of the caller's own, with no error. False: there is no place and no memory for one.
    bool Post(const CPacket& packet);
    // False: there is none.
    bool Take(CPacket& packet);

private:
    // Links are OVERLAPPEDs with the next one in Internal, bytes and error in InternalHigh, and the
    // key in Pointer.
    struct CPlace {
        OVERLAPPED link;  // the first member: a link of this kind is its place
        OVERLAPPED* named;
        CPlace* made_before;
    };

    void Append(OVERLAPPED* link, DWORD bytes, DWORD error, ULONG_PTR key);
    CPlace* TakePlace();
    void GivePlace(CPlace* place);

    std::mutex m_lock;  // guards everything
    OVERLAPPED* m_head = nullptr;
    OVERLAPPED* m_tail = nullptr;
    OVERLAPPED* m_free = nullptr;  // links of places
    CPlace* m_made = nullptr;      // all that are not of the reserve
    std::array<CPlace, kReserve> m_reserve{};
};

}  // namespace posix

// Links, and the places of packets that are no operation's.
#include "platform/posix/port_packets.h"

#include <cstdint>
#include <new>

namespace posix {
namespace {

constexpr DWORD kOwnPacket = UINT32_MAX;  // no operation's error

OVERLAPPED* Next(const OVERLAPPED* link) {
    return reinterpret_cast<OVERLAPPED*>(link->Internal);
}

void SetNext(OVERLAPPED* link, OVERLAPPED* next) {
    link->Internal = reinterpret_cast<ULONG_PTR>(next);
}

DWORD Error(const OVERLAPPED* link) {
    return static_cast<DWORD>(link->InternalHigh >> 32);
}

}  // namespace

CPacketList::CPacketList() {
    for (CPlace& place : m_reserve)
        GivePlace(&place);
}

// What is still queued is not looked at: whose operations these were may be gone.
CPacketList::~CPacketList() {
    while (CPlace* place = m_made) {
        m_made = place->made_before;
        delete place;
    }
}

CPacketList::CPlace* CPacketList::TakePlace() {
    if (OVERLAPPED* const link = m_free) {
        m_free = Next(link);
        return reinterpret_cast<CPlace*>(link);
    }
    auto* const place = new (std::nothrow) CPlace{{}, nullptr, m_made};
    if (place) m_made = place;
    return place;
}

void CPacketList::GivePlace(CPlace* place) {
    SetNext(&place->link, m_free);
    m_free = &place->link;
}

void CPacketList::Complete(const CPacket& packet) {
    const std::lock_guard lock(m_lock);
    Append(packet.overlapped, packet.bytes, packet.error, packet.key);
}

bool CPacketList::Post(const CPacket& packet) {
    const std::lock_guard lock(m_lock);
    CPlace* place = TakePlace();
    if (!place) return false;
    place->named = packet.overlapped;
    Append(&place->link, packet.bytes, kOwnPacket, packet.key);
    return true;
}

void CPacketList::Append(OVERLAPPED* link, DWORD bytes, DWORD error, ULONG_PTR key) {
    SetNext(link, nullptr);
    link->InternalHigh = ULONG_PTR{error} << 32 | bytes;
    link->Pointer = reinterpret_cast<PVOID>(key);
    if (m_tail)
        SetNext(m_tail, link);
    else
        m_head = link;
    m_tail = link;
}

bool CPacketList::Take(CPacket& packet) {
    const std::lock_guard lock(m_lock);
    OVERLAPPED* const link = m_head;
    if (!link) return false;
    m_head = Next(link);
    if (!m_head) m_tail = nullptr;
    packet.bytes = static_cast<DWORD>(link->InternalHigh);
    packet.key = reinterpret_cast<ULONG_PTR>(link->Pointer);
    if (Error(link) == kOwnPacket) {
        auto* const place = reinterpret_cast<CPlace*>(link);
        packet.overlapped = place->named;
        packet.error = NO_ERROR;
        GivePlace(place);
        return true;
    }
    packet.overlapped = link;
    packet.error = Error(link);
    link->Internal = packet.error;
    link->InternalHigh = packet.bytes;
    link->Pointer = nullptr;
    return true;
}

}  // namespace posix

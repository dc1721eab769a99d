// See wire.h.
#include "bench/loopback/wire.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

CWire* g_wire = nullptr;
Counts g_counts;
// Of the thread that serves. What the client allocates in it does not count.
uint64_t g_allocations = 0;
thread_local bool t_serves = false;
thread_local int t_inWire = 0;

struct CInWire {
    CInWire() { ++t_inWire; }
    ~CInWire() { --t_inWire; }
};

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "loopback: %s: %s\n", what, strerror(errno));
    exit(2);
}

// What syscall does.
long Kernel(long number, long a, long b, long c, long d, long e, long f) {
    long result;
    register long fourth asm("r10") = d;
    register long fifth asm("r8") = e;
    register long sixth asm("r9") = f;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth), "r"(fifth), "r"(sixth)
                 : "rcx", "r11", "memory");
    if (result > -4096 && result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

// The length of a whole reply, or 0 while its head is not complete.
uint64_t WholeReply(const std::string& reply) {
    const size_t end = reply.find("\r\n\r\n");
    if (end == std::string::npos) return 0;
    constexpr char kName[] = "\r\nContent-Length: ";
    const size_t at = reply.find(kName);
    const uint64_t body =
        at < end ? strtoull(reply.c_str() + at + sizeof(kName) - 1, nullptr, 10) : 0;
    return end + 4 + body;
}

}  // namespace

CWire::CWire(uint16_t port, Taken taken) : m_taken(std::move(taken)) {
    g_wire = this;
    m_client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_client < 0 ||
        connect(m_client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("no connection");
    }
}

CWire::~CWire() {
    close(m_client);
    g_wire = nullptr;
}

void CWire::Send(std::string request) {
    m_request = std::move(request);
    m_at = 0;
    m_reply.clear();
    m_fileBytes = m_wanted = 0;
    Nudge();
}

void CWire::Nudge() {
    const char byte = 0;
    if (syscall(SYS_sendto, m_client, &byte, 1, MSG_NOSIGNAL, nullptr, 0) != 1) Fail("sendto");
}

__attribute__((noinline)) long CWire::Receive(int fd, void* to, size_t room, int flags) {
    char nudges[64];
    if (!(flags & MSG_PEEK)) {
        while (syscall(SYS_recvfrom, fd, nudges, sizeof(nudges), MSG_DONTWAIT, nullptr, nullptr) >
               0) {
        }
    }
    const size_t bytes = std::min(room, m_request.size() - m_at);
    if (bytes == 0) {
        errno = EAGAIN;
        return -1;
    }
    memcpy(to, m_request.data() + m_at, bytes);
    if (!(flags & MSG_PEEK)) m_at += bytes;
    return static_cast<long>(bytes);
}

__attribute__((noinline)) long CWire::Take(const msghdr& message) {
    const CInWire pause;
    size_t bytes = 0;
    for (size_t i = 0; i < message.msg_iovlen; ++i) {
        m_reply.append(static_cast<const char*>(message.msg_iov[i].iov_base),
                       message.msg_iov[i].iov_len);
        bytes += message.msg_iov[i].iov_len;
    }
    Look();
    return static_cast<long>(bytes);
}

__attribute__((noinline)) long CWire::TakeFile(size_t bytes) {
    m_fileBytes += bytes;
    Look();
    return static_cast<long>(bytes);
}

void CWire::Look() {
    if (m_wanted == 0) m_wanted = WholeReply(m_reply);
    const uint64_t have = m_reply.size() + m_fileBytes;
    if (m_wanted == 0 || have < m_wanted) return;
    errno = EPROTO;
    if (have > m_wanted) Fail("a reply is too long");
    const CInWire pause;
    std::string next = m_taken(m_reply, m_fileBytes);
    if (!next.empty()) Send(std::move(next));
}

Counts CountsSoFar() {
    Counts counts = g_counts;
    counts.allocations = g_allocations;
    return counts;
}

// The calls that the server makes.

#define WIRE_CALL extern "C" __attribute__((visibility("default")))

WIRE_CALL int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    const long got = syscall(SYS_accept4, fd, address, length, flags);
    if (got >= 0 && g_wire) g_wire->Accepted(static_cast<int>(got));
    return static_cast<int>(got);
}

WIRE_CALL ssize_t recv(int fd, void* to, size_t room, int flags) {
    if (!g_wire || !g_wire->Is(fd))
        return syscall(SYS_recvfrom, fd, to, room, flags, nullptr, nullptr);
    ++g_counts.recv;
    t_serves = true;
    return g_wire->Receive(fd, to, room, flags);
}

WIRE_CALL ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    if (!g_wire || !g_wire->Is(fd)) return syscall(SYS_sendmsg, fd, message, flags);
    ++g_counts.send;
    return g_wire->Take(*message);
}

WIRE_CALL ssize_t send(int fd, const void* from, size_t bytes, int flags) {
    if (!g_wire || !g_wire->Is(fd)) return syscall(SYS_sendto, fd, from, bytes, flags, nullptr, 0);
    ++g_counts.send;
    iovec vector{const_cast<void*>(from), bytes};
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    return g_wire->Take(message);
}

WIRE_CALL ssize_t sendfile(int fd, int file, off_t* offset, size_t bytes) noexcept {
    if (!g_wire || !g_wire->Is(fd)) return syscall(SYS_sendfile, fd, file, offset, bytes);
    ++g_counts.sendfile;
    if (offset) *offset += static_cast<off_t>(bytes);
    return g_wire->TakeFile(bytes);
}

// The low-water mark says how many bytes an event is wanted for: they are there.
WIRE_CALL int setsockopt(int fd, int level, int name, const void* value,
                         socklen_t length) noexcept {
    if (!g_wire || !g_wire->Is(fd) || level != SOL_SOCKET || name != SO_RCVLOWAT)
        return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, length));
    ++g_counts.setsockopt;
    if (g_wire->Unread() > 0) g_wire->Nudge();
    return 0;
}

WIRE_CALL int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (!g_wire || !g_wire->Is(fd) || request != FIONREAD)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    ++g_counts.ioctl;
    *static_cast<int*>(argument) = g_wire->Unread();
    return 0;
}

// Whether the page cache has some bytes depends on what else the machine does, and whether anybody
// can tell on the kernel, the file system and valgrind: here it always has them all.
WIRE_CALL long syscall(long number, ...) noexcept {
    constexpr long kCacheStat = 451;
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == kCacheStat) {
        const auto* range = reinterpret_cast<const uint64_t*>(arguments[1]);  // offset, length
        auto* state = reinterpret_cast<uint64_t*>(arguments[2]);              // first: pages cached
        state[0] = (range[1] + 4095) / 4096;
        return 0;
    }
    return Kernel(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                  arguments[5]);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(size_t bytes);
extern "C" void* __libc_calloc(size_t count, size_t bytes);
extern "C" void* __libc_memalign(size_t alignment, size_t bytes);

WIRE_CALL void* malloc(size_t bytes) {
    if (t_serves && t_inWire == 0) ++g_allocations;
    return __libc_malloc(bytes);
}

WIRE_CALL void* calloc(size_t count, size_t bytes) {
    if (t_serves && t_inWire == 0) ++g_allocations;
    return __libc_calloc(count, bytes);
}

WIRE_CALL void* aligned_alloc(size_t alignment, size_t bytes) {
    if (t_serves && t_inWire == 0) ++g_allocations;
    return __libc_memalign(alignment, bytes);
}
#endif

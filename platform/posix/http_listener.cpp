// Listening sockets: binding, accepting, and the list of addresses to listen on.
#include "platform/posix/http_listener.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <deque>
#include <new>
#include <string>
#include <utility>

#include "platform/posix/filesinternal.h"
#include "platform/posix/http_background.h"
#include "platform/posix/http_connection.h"
#include "platform/posix/http_queue.h"
#include "platform/posix/registry.h"

namespace posix {
namespace {

constexpr int kAcceptTurn = 64;

// A stopped listener is not used again: it may still be queued as ready in its port.
struct CListenerStore {
    std::mutex lock;  // guards the list
    std::deque<CListener> all;
};

CListenerStore& Store() {
    static auto* store = new CListenerStore();
    return *store;
}

bool ParseAddress(std::string text, CSocketAddress& address) {
    if (text.size() > 2 && text.front() == '[' && text.back() == ']')
        text = text.substr(1, text.size() - 2);
    address = {};
    if (inet_pton(AF_INET, text.c_str(), &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        return true;
    }
    if (inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) != 1) return false;
    address.v6.sin6_family = AF_INET6;
    return true;
}

std::vector<BYTE> ReadListenOnlyList() {
    HKEY key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                      TEXT("System\\CurrentControlSet\\Services\\HTTP\\Parameters"), 0, KEY_READ,
                      &key) != ERROR_SUCCESS) {
        return {};
    }
    std::vector<BYTE> value;
    DWORD type = 0, size = 0;
    if (RegQueryValueExA(key, "ListenOnlyList", nullptr, &type, nullptr, &size) == ERROR_SUCCESS &&
        type == REG_MULTI_SZ) {
        value.resize(size);
        if (RegQueryValueExA(key, "ListenOnlyList", nullptr, &type, value.data(), &size) !=
            ERROR_SUCCESS) {
            size = 0;
        }
        value.resize(size);
    }
    RegCloseKey(key);
    return value;
}

ULONG ErrorOfBind(int error) {
    if (error == EADDRINUSE) return ERROR_SHARING_VIOLATION;
    if (error == EACCES || error == EPERM) return ERROR_ACCESS_DENIED;
    return ErrorFromErrno(error);
}

// Makes the port part of the address. An IPv6 address that means every address becomes an IPv4 one
// where the system has no IPv6.
ULONG OpenSocket(CSocketAddress& address, uint16_t port, int* opened) {
    const bool any =
        address.any.sa_family == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&address.v6.sin6_addr);
    int fd = socket(address.any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 && any && errno == EAFNOSUPPORT) {
        address = {};
        address.v4.sin_family = AF_INET;
        fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    }
    if (fd < 0) return ErrorFromErrno(errno);
    const int on = 1, six_only = any ? 0 : 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // accepted sockets inherit it
    if (address.any.sa_family == AF_INET6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &six_only, sizeof six_only);
        address.v6.sin6_port = htons(port);
    } else {
        address.v4.sin_port = htons(port);
    }
    if (bind(fd, &address.any, static_cast<socklen_t>(address.Size())) != 0) {
        const ULONG error = ErrorOfBind(errno);
        close(fd);
        return error;
    }
    *opened = fd;
    return NO_ERROR;
}

struct CReservedSocket {
    CSocketAddress asked;
    uint16_t port;
    int fd;
};

struct CReservedStore {
    std::mutex lock;  // guards the list
    std::vector<CReservedSocket> all;
};

CReservedStore& Reserved() {
    static auto* store = new CReservedStore();
    return *store;
}

bool SameAddress(const CSocketAddress& a, const CSocketAddress& b) {
    if (a.any.sa_family != b.any.sa_family) return false;
    return a.any.sa_family == AF_INET6 ? IN6_ARE_ADDR_EQUAL(&a.v6.sin6_addr, &b.v6.sin6_addr) != 0
                                       : a.v4.sin_addr.s_addr == b.v4.sin_addr.s_addr;
}

// The socket that was opened ahead for this address, or -1.
int TakeReserved(const CSocketAddress& asked, uint16_t port) {
    CReservedStore& store = Reserved();
    const std::lock_guard lock(store.lock);
    for (auto one = store.all.begin(); one != store.all.end(); ++one) {
        if (one->port != port || !SameAddress(one->asked, asked)) continue;
        const int fd = one->fd;
        store.all.erase(one);
        return fd;
    }
    return -1;
}

// An address that cannot be read is left out: listening on fewer addresses than asked is safer
// than on all.
std::vector<CSocketAddress> ParseList(const std::vector<BYTE>& list, bool* given) {
    std::vector<CSocketAddress> addresses;
    for (size_t at = 0; at < list.size() && list[at] != 0;) {
        std::string text;
        while (at < list.size() && list[at] != 0)
            text.push_back(static_cast<char>(list[at++]));
        ++at;
        *given = true;
        CSocketAddress address;
        if (ParseAddress(text, address)) addresses.push_back(address);
    }
    return addresses;
}

}  // namespace

std::vector<CSocketAddress> ListenAddresses() {
    bool given = false;
    std::vector<CSocketAddress> addresses = ParseList(ReadListenOnlyList(), &given);
    if (given) return addresses;
    CSocketAddress any{};
    any.v6.sin6_family = AF_INET6;  // and, dual-stack, every IPv4 address
    return {any};
}

ULONG ReservePort(uint16_t port) {
    std::vector<CReservedSocket> opened;
    const std::vector<CSocketAddress> addresses = ListenAddresses();
    ULONG error = addresses.empty() ? ERROR_INVALID_PARAMETER : NO_ERROR;
    for (size_t i = 0; i < addresses.size() && error == NO_ERROR; ++i) {
        CSocketAddress address = addresses[i];
        int fd = -1;
        error = OpenSocket(address, port, &fd);
        if (error == NO_ERROR) opened.push_back({addresses[i], port, fd});
    }
    if (error != NO_ERROR) {
        for (const CReservedSocket& socket : opened)
            close(socket.fd);
        return error;
    }
    CReservedStore& store = Reserved();
    const std::lock_guard lock(store.lock);
    store.all.insert(store.all.end(), opened.begin(), opened.end());
    return NO_ERROR;
}

CListener* CListener::Start(int fd, CRequestQueue* queue, CCompletionPort* port, ULONG* error) try {
    CListener* listener;
    {
        CListenerStore& store = Store();
        const std::lock_guard lock(store.lock);
        listener = &store.all.emplace_back();
    }
    {
        const std::lock_guard lock(listener->m_lock);
        listener->m_fd = fd;
        listener->m_queue = queue;
        listener->m_port = port;
        listener->m_paused = false;
        if (port->Lanes().Add(0, fd, EPOLLIN | EPOLLONESHOT, listener)) return listener;
        *error = ErrorOfWatch(errno);
    }
    listener->Stop();
    return nullptr;
} catch (const std::bad_alloc&) {
    close(fd);
    *error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
}

void CListener::Stop() {
    const std::lock_guard lock(m_lock);
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_queue = nullptr;
    m_port = nullptr;
}

void CListener::Arm() {
    if (!m_port->Lanes().Modify(0, m_fd, EPOLLIN | EPOLLONESHOT, this)) Pause();
}

// The clients wait in the backlog until the next tick.
void CListener::Pause() {
    m_paused = true;
    m_port->EnsureTick(CCompletionPort::ETick::Quick);
}

bool CListener::Run(CPacket&) {
    const std::lock_guard lock(m_lock);
    if (m_fd < 0) return false;
    bool lacked = false;
    for (int i = 0; i < kAcceptTurn; ++i) {
        CSocketAddress remote{};
        socklen_t length = sizeof remote;
        const int fd = accept4(m_fd, &remote.any, &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            if (CHttpConnection::Open(fd, m_queue, remote)) continue;
            const int error = errno;
            if (m_queue->Closing()) continue;
            Tell("a new connection was closed", error);
            lacked = true;
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            Tell("new connections wait", errno);
            Pause();
            return false;
        }
        if (errno == EAGAIN) {
            if (!lacked) m_told = false;
            break;
        }
    }
    Arm();
    return false;
}

// To the system's log: once, until everybody who had come was let in.
void CListener::Tell(const char* what, int error) {
    if (std::exchange(m_told, true)) return;
    errno = error;
    syslog(LOG_WARNING, "http: %s: %m", what);
}

void CListener::Resume(CCompletionPort* port) {
    CListenerStore& store = Store();
    const std::lock_guard all(store.lock);
    for (CListener& listener : store.all) {
        const std::lock_guard lock(listener.m_lock);
        if (listener.m_port != port || !listener.m_paused) continue;
        listener.m_paused = false;
        listener.Arm();
    }
}

ULONG CListenPort::Start(uint16_t port, CRequestQueue* queue, CCompletionPort* completion_port) {
    m_asked = m_bound = port;
    const std::vector<CSocketAddress> addresses = ListenAddresses();
    if (addresses.empty()) return ERROR_INVALID_PARAMETER;
    m_listeners.reserve(addresses.size());
    for (const CSocketAddress& address : addresses) {
        const ULONG error = Bind(address, queue, completion_port);
        if (error == NO_ERROR) continue;
        Stop();
        return error;
    }
    return NO_ERROR;
}

ULONG CListenPort::Bind(const CSocketAddress& where, CRequestQueue* queue, CCompletionPort* port) {
    CSocketAddress address = where;
    int fd = TakeReserved(where, m_bound);
    if (fd < 0)
        if (const ULONG error = OpenSocket(address, m_bound, &fd)) return error;
    socklen_t length = sizeof address;
    if (listen(fd, SOMAXCONN) != 0 || getsockname(fd, &address.any, &length) != 0) {
        const ULONG error = ErrorOfBind(errno);
        close(fd);
        return error;
    }
    m_bound = address.Port();
    ULONG error = NO_ERROR;
    if (CListener* listener = CListener::Start(fd, queue, port, &error))
        m_listeners.push_back(listener);  // there is room
    return error;
}

void CListenPort::Stop() {
    for (CListener* listener : m_listeners)
        listener->Stop();
    m_listeners.clear();
}

}  // namespace posix

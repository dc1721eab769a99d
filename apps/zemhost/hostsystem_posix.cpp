// hostsystem.h on Linux. Signals are taken with sigwait on the main thread, so that nothing runs in
// a signal handler.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "apps/zemhost/hostsystem.h"
#include "platform/platform.h"

namespace {

constexpr int kReopenLogSignal = SIGUSR1;

sigset_t SignalsToWaitFor() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, kReopenLogSignal})
        sigaddset(&signals, number);
    return signals;
}

// One datagram to the socket that NOTIFY_SOCKET names.
void Notify(const std::string& state) {
    const char* const name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!name || std::strlen(name) >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, name);
    if (address.sun_path[0] == '@') address.sun_path[0] = 0;
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return;
    sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name)));
    close(descriptor);
}

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t bytes = 0;

    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

bool MakeAddress(const std::string& text, uint16_t port, SocketAddress& address) {
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        address.bytes = sizeof *v4;
        return true;
    }
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
    if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        address.bytes = sizeof *v6;
        return true;
    }
    return false;
}

class CSocket {
public:
    explicit CSocket(int family) : m_descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~CSocket() {
        if (m_descriptor >= 0) close(m_descriptor);
    }
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;
    int Get() const { return m_descriptor; }

private:
    int m_descriptor;
};

}  // namespace

std::vector<std::string> ProgramArguments(int argc, char** argv) {
    return {argv + 1, argv + argc};
}

std::optional<int> RunUnderSystem(const HostOptions&, const std::function<int()>&) {
    return std::nullopt;
}

void TellReady() {
    Notify("READY=1");
}
void TellFailure(const std::string& sentence) {
    Notify("STATUS=" + sentence);
}

void PrepareProcess() {
    const sigset_t signals = SignalsToWaitFor();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);  // a file at its size limit is a failed write, not the server's end
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int32_t OpenPort(uint16_t port) {
    return HRESULT_FROM_WIN32(ReserveListenPort(port));
}

bool CanWriteTo(const std::string& directory) {
    return access(directory.c_str(), W_OK | X_OK) == 0;
}

std::string WaitForStopSignal(const std::function<void()>& reopenLog) {
    const sigset_t signals = SignalsToWaitFor();
    int number = 0;
    while (sigwait(&signals, &number) == 0 && number == kReopenLogSignal)
        reopenLog();
    for (const int next : {SIGINT, SIGTERM, SIGHUP})
        signal(next, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    return std::string("SIG") + sigabbrev_np(number);
}

AddressKind KindOfAddress(const std::string& text) {
    SocketAddress address;
    if (!MakeAddress(text, 0, address)) return AddressKind::kNone;
    if (address.storage.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.storage);
        const in_addr_t number = ntohl(v4.sin_addr.s_addr);
        const bool unfit = IN_MULTICAST(number) || number == INADDR_BROADCAST;
        return unfit ? AddressKind::kUnfit : AddressKind::kUsual;
    }
    const in6_addr& number = reinterpret_cast<const sockaddr_in6&>(address.storage).sin6_addr;
    const bool unfit = IN6_IS_ADDR_MULTICAST(&number) || IN6_IS_ADDR_LINKLOCAL(&number) ||
                       IN6_IS_ADDR_V4MAPPED(&number);
    return unfit ? AddressKind::kUnfit : AddressKind::kUsual;
}

ListenTrial TryListening(const std::string& text, uint16_t port) {
    SocketAddress address;
    if (!MakeAddress(text, port, address)) return ListenTrial::kNoSuchAddress;
    const CSocket socket(address.storage.ss_family);
    const int on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(socket.Get(), address.Get(), address.bytes) == 0 && listen(socket.Get(), 1) == 0)
        return ListenTrial::kWorks;
    switch (errno) {
        case EADDRINUSE:
            return ListenTrial::kTaken;
        case EACCES:
        case EPERM:
            return ListenTrial::kForbidden;
        case EADDRNOTAVAIL:
        case EAFNOSUPPORT:
            return ListenTrial::kNoSuchAddress;
        default:
            return ListenTrial::kWorks;
    }
}

bool CanConnect(const std::string& text, uint16_t port) {
    SocketAddress address;
    if (!MakeAddress(text, port, address)) return false;
    const CSocket socket(address.storage.ss_family);
    return connect(socket.Get(), address.Get(), address.bytes) == 0;
}

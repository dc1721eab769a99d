// rawloop: the least that a server can do, to measure ourselves against. One epoll loop a thread,
// one mapped file, no protocol: whatever is asked, the same bytes are answered. Linux only.
//
//   map       every request gets HEAD and FRAME in one `sendmsg`, the frame from its mapping
//   sendfile  the same with `sendfile` for the frame
//   write     every request's body is received in place and HEAD answered; then comes CRC-32C, then
//             `pwrite` behind the one before in FRAME (a server that answers before it writes)
//
// And the least that a reader can do, nothing is sent:
//
//   read      FILE is read once from its beginning to its end, 1 MiB at a time, through the page
//             cache or past it (`direct`); prints the seconds
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "mediaio/store/crc32c.h"

namespace {

constexpr size_t kRoom = size_t{16} << 20;  // of one request
constexpr size_t kPiece = size_t{1} << 20;  // of what is read

struct Setup {
    bool write = false;
    bool map = false;
    std::string head;  // all of an answer but the frame
    int file = -1;     // the frame, or where frames are written
    const char* frame = nullptr;
    size_t frameBytes = 0;
};

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "rawloop: %s: %s\n", what, strerror(errno));
    exit(2);
}

struct Connection {
    int fd = -1;
    std::unique_ptr<char[]> buffer{new char[kRoom]};
    size_t held = 0;       // bytes of the request so far
    size_t wanted = 0;     // of all of it; 0: its header is not complete
    size_t headBytes = 0;  // of its header
    size_t sent = 0;       // of the answer
    bool answering = false;

    bool Receive();
    bool Answer(const Setup& setup);
    void Store(const Setup& setup) const;
};

// False when the socket has no more, or is gone (then fd is -1); true with a whole request.
bool Connection::Receive() {
    for (;;) {
        if (wanted == 0 && held != 0) {
            const std::string_view text(buffer.get(), held);
            const size_t end = text.find("\r\n\r\n");
            const size_t length = text.find("Content-Length: ");
            if (end != std::string_view::npos) {
                headBytes = end + 4;
                wanted = headBytes;
                if (length < end) wanted += strtoul(buffer.get() + length + 16, nullptr, 10);
            }
        }
        if (wanted != 0 && held >= wanted) return true;
        const ssize_t n = recv(fd, buffer.get() + held, kRoom - held, MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) return false;
        if (n <= 0) {
            close(fd);
            fd = -1;
            return false;
        }
        held += static_cast<size_t>(n);
    }
}

// False when the socket takes no more now.
bool Connection::Answer(const Setup& setup) {
    const size_t frameBytes = setup.write ? 0 : setup.frameBytes;
    const size_t whole = setup.head.size() + frameBytes;
    while (sent < whole) {
        ssize_t n = 0;
        if (sent < setup.head.size() || setup.map) {
            const size_t skip = std::min(sent, setup.head.size());
            iovec parts[2] = {
                {const_cast<char*>(setup.head.data()) + skip, setup.head.size() - skip},
                {const_cast<char*>(setup.frame) + (sent - skip), frameBytes - (sent - skip)}};
            msghdr message{};
            message.msg_iov = parts;
            message.msg_iovlen = setup.map ? 2 : 1;
            const int more = !setup.map && frameBytes != 0 ? MSG_MORE : 0;
            n = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT | more);
        } else {
            auto offset = static_cast<off_t>(sent - setup.head.size());
            n = sendfile(fd, setup.file, &offset, whole - sent);
        }
        if (n < 0 && errno == EAGAIN) return false;
        if (n <= 0) {
            close(fd);
            fd = -1;
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

void Connection::Store(const Setup& setup) const {
    static std::atomic<off_t> next{0};
    static std::atomic<uint32_t> seen{0};
    const char* body = buffer.get() + headBytes;
    const size_t size = wanted - headBytes;
    seen.fetch_xor(zemstore::Crc32c(0, body, size));
    const off_t place = next.fetch_add(static_cast<off_t>((size + 4095) / 4096 * 4096));
    if (pwrite(setup.file, body, size, place) != static_cast<ssize_t>(size)) Fail("pwrite");
}

// Goes on with a connection until its socket would block.
void Serve(Connection& connection, const Setup& setup) {
    while (connection.fd >= 0) {
        if (!connection.answering && !connection.Receive()) return;
        connection.answering = true;
        if (!connection.Answer(setup)) return;
        if (setup.write) connection.Store(setup);
        memmove(connection.buffer.get(), connection.buffer.get() + connection.wanted,
                connection.held - connection.wanted);
        connection.held -= connection.wanted;
        connection.wanted = connection.sent = 0;
        connection.answering = false;
    }
}

void Loop(int epoll, const Setup& setup) {
    epoll_event events[64];
    for (;;) {
        const int count = epoll_wait(epoll, events, 64, -1);
        for (int i = 0; i < count; ++i) {
            auto* connection = static_cast<Connection*>(events[i].data.ptr);
            Serve(*connection, setup);
            if (connection->fd < 0) delete connection;
        }
    }
}

std::string Contents(const char* name) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(name, "rb"), fclose);
    if (!file) Fail(name);
    std::string bytes;
    char part[4096];
    for (size_t n = 0; (n = fread(part, 1, sizeof part, file.get())) > 0;)
        bytes.append(part, n);
    return bytes;
}

double Seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int ReadOnce(const char* name, bool direct) {
    const int file = open(name, O_RDONLY | (direct ? O_DIRECT : 0));
    if (file < 0) Fail(name);
    void* piece = mmap(nullptr, kPiece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (piece == MAP_FAILED) Fail("mmap");
    const double begin = Seconds();
    ssize_t n;
    while ((n = read(file, piece, kPiece)) > 0) {
    }
    if (n < 0) Fail(name);
    printf("%.6f\n", Seconds() - begin);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Setup setup;
    if (argc == 4 && std::string_view(argv[1]) == "read")
        return ReadOnce(argv[2], std::string_view(argv[3]) == "direct");
    const std::string_view mode = argc == 6 ? argv[1] : "";
    setup.write = mode == "write";
    setup.map = mode == "map";
    if (!setup.write && !setup.map && mode != "sendfile") {
        fputs(
            "usage: rawloop sendfile|map|write PORT THREADS HEAD_FILE FRAME_FILE\n"
            "       rawloop read FILE direct|cached\n"
            "Answers on 127.0.0.1 until it is killed; prints \"ready\". Or reads once.\n",
            stderr);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);  // sendfile cannot be told to do without it
    setup.head = Contents(argv[4]);
    setup.file = open(argv[5], setup.write ? O_RDWR | O_CREAT | O_TRUNC : O_RDONLY, 0600);
    if (setup.file < 0) Fail(argv[5]);
    struct stat info;
    if (fstat(setup.file, &info) != 0) Fail(argv[5]);
    setup.frameBytes = static_cast<size_t>(info.st_size);
    if (!setup.write) {
        void* view =
            mmap(nullptr, setup.frameBytes, PROT_READ, MAP_SHARED | MAP_POPULATE, setup.file, 0);
        if (view == MAP_FAILED) Fail("mmap");
        setup.frame = static_cast<const char*>(view);
    }

    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Fail("bind");
    if (listen(listener, 128) != 0) Fail("listen");

    std::vector<int> epolls;
    for (int i = 0; i < std::max(1, atoi(argv[3])); ++i) {
        epolls.push_back(epoll_create1(EPOLL_CLOEXEC));
        std::thread(Loop, epolls.back(), std::cref(setup)).detach();
    }
    puts("ready");
    fflush(stdout);
    for (size_t next = 0;; ++next) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) continue;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        auto* connection = new Connection;
        connection->fd = fd;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
        event.data.ptr = connection;
        epoll_ctl(epolls[next % epolls.size()], EPOLL_CTL_ADD, fd, &event);
    }
}

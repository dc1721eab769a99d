// load: a load client for HTTP/1.1 that costs little itself. Every connection sends the same
// request and reads its reply whole before it sends the next one; bodies are read in large pieces
// and dropped. Closed loop, or open loop at a rate: then a request's latency counts from the moment
// it was due, so that a server that stalls cannot hide the requests that were not sent meanwhile.
// Prints one JSON object. Linux only.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReadBytes = size_t{256} << 10;
constexpr size_t kHeadRoom = 4096;  // of a reply

struct Setup {
    uint16_t port = 0;
    std::string path = "/";
    std::string method = "GET";
    std::string bodyFile;
    std::vector<std::string> headers;
    unsigned connections = 1;
    unsigned threads = 1;
    unsigned idle = 0;  // further connections, silent
    double seconds = 1;
    uint64_t requests = 0;  // closed loop: ends after so many, unless 0
    double rate = 0;        // requests a second of all connections; 0: closed loop
    uint64_t least = 0;     // bytes of body that a reply must have
    size_t stepAt = 0;      // offset in the body of a 64-bit number that counts up, unless 0
    uint64_t steps = 1;     // and begins again at this one
    std::string request;    // header and body
    size_t bodyAt = 0;      // where the body begins
};

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "load: %s: %s\n", what, strerror(errno));
    exit(2);
}

// Counts by value with an error of at most 1/32: 32 counters for every power of two.
class Histogram {
public:
    void Add(uint64_t value) {
        ++m_counts[SlotOf(value)];
        ++m_total;
        m_most = std::max(m_most, value);
    }
    void Add(const Histogram& other) {
        for (size_t i = 0; i < m_counts.size(); ++i)
            m_counts[i] += other.m_counts[i];
        m_total += other.m_total;
        m_most = std::max(m_most, other.m_most);
    }
    // The least value that `share` of all are not above.
    uint64_t At(double share) const {
        const auto wanted = static_cast<uint64_t>(share * static_cast<double>(m_total));
        uint64_t seen = 0;
        for (size_t i = 0; i < m_counts.size(); ++i)
            if ((seen += m_counts[i]) > wanted) return std::min(TopOf(i), m_most);
        return m_most;
    }
    uint64_t Most() const { return m_most; }
    uint64_t Total() const { return m_total; }

private:
    static constexpr unsigned kBits = 5;

    static size_t SlotOf(uint64_t value) {
        const auto width = static_cast<unsigned>(std::bit_width(value));
        if (width <= kBits) return static_cast<size_t>(value);
        const unsigned shift = width - kBits - 1;
        return (size_t{shift} << kBits) + static_cast<size_t>(value >> shift);
    }
    static uint64_t TopOf(size_t slot) {
        if (slot < (2u << kBits)) return slot;
        const size_t shift = (slot >> kBits) - 1;
        const uint64_t part = slot - (shift << kBits);
        return ((part + 1) << shift) - 1;
    }

    std::array<uint64_t, (64 - kBits + 1) << kBits> m_counts{};
    uint64_t m_total = 0;
    uint64_t m_most = 0;
};

struct Tally {
    uint64_t requests = 0;
    uint64_t errors = 0;  // no reply, one that is not of 2xx or too short, a lost connection
    uint64_t bytes = 0;   // of bodies
    Histogram nanoseconds;

    void Add(const Tally& other) {
        requests += other.requests;
        errors += other.errors;
        bytes += other.bytes;
        nanoseconds.Add(other.nanoseconds);
    }
};

int Connect(const Setup& setup) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) Fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(setup.port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Fail("connect");
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd;
}

class Connection {
public:
    explicit Connection(const Setup& setup) : m_setup(setup), m_fd(Connect(setup)) {}
    ~Connection() { close(m_fd); }

    int Fd() const { return m_fd; }
    bool Busy() const { return m_busy; }

    void Begin(Clock::time_point due, uint64_t number) {
        m_due = due;
        m_number = number;
        m_busy = true;
        m_sent = m_head = 0;
        m_body = m_length = 0;
        m_whole = false;
    }

    enum class EResult { Waits, Done, Lost };

    // Sends and receives as far as the socket goes.
    EResult Go(char* buffer, Tally& tally) {
        if (!m_busy) return EResult::Waits;
        if (!Send()) return EResult::Lost;
        while (!m_whole || m_body < m_length) {
            const ssize_t n = m_whole ? recv(m_fd, buffer, Wanted(), 0)
                                      : recv(m_fd, m_text + m_head, kHeadRoom - m_head, 0);
            if (n < 0 && errno == EAGAIN) return EResult::Waits;
            if (n <= 0) return EResult::Lost;
            if (m_whole)
                m_body += static_cast<uint64_t>(n);
            else if (!TakeHead(static_cast<size_t>(n)))
                return EResult::Lost;
        }
        m_busy = false;
        if (m_status / 100 != 2 || m_length < m_setup.least) ++tally.errors;
        ++tally.requests;
        tally.bytes += m_length;
        const auto took = Clock::now() - m_due;
        tally.nanoseconds.Add(static_cast<uint64_t>(std::max<int64_t>(
            0, std::chrono::duration_cast<std::chrono::nanoseconds>(took).count())));
        return EResult::Done;
    }

private:
    size_t Wanted() const { return std::min<uint64_t>(kReadBytes, m_length - m_body); }

    bool Send() {
        const std::string& request = m_setup.request;
        while (m_sent < request.size()) {
            iovec parts[3];
            int count = 0;
            size_t from = m_sent;
            const auto add = [&](const char* data, size_t begin, size_t end) {
                if (from >= end) return;
                parts[count++] = {const_cast<char*>(data) + (from - begin), end - from};
                from = end;
            };
            if (m_setup.stepAt != 0) {
                const size_t at = m_setup.bodyAt + m_setup.stepAt;
                const uint64_t number = m_number % m_setup.steps;
                add(request.data(), 0, at);
                add(reinterpret_cast<const char*>(&number), at, at + sizeof number);
                add(request.data() + at + sizeof number, at + sizeof number, request.size());
                return Put(parts, count);
            }
            add(request.data(), 0, request.size());
            if (!Put(parts, count)) return false;
            if (m_sent < request.size()) return true;
        }
        return true;
    }

    // True also when the socket takes no more now.
    bool Put(iovec* parts, int count) {
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<size_t>(count);
        const ssize_t n = sendmsg(m_fd, &message, MSG_NOSIGNAL);
        if (n < 0) return errno == EAGAIN;
        m_sent += static_cast<size_t>(n);
        return true;
    }

    bool TakeHead(size_t bytes) {
        m_head += bytes;
        const std::string_view text(m_text, m_head);
        const size_t end = text.find("\r\n\r\n");
        if (end == std::string_view::npos) return m_head < kHeadRoom;
        const size_t length = text.find("Content-Length: ");
        if (text.substr(0, 9) != "HTTP/1.1 ") return false;
        std::from_chars(m_text + 9, m_text + 12, m_status);
        if (length < end) std::from_chars(m_text + length + 16, m_text + end, m_length);
        m_body = m_head - (end + 4);
        m_whole = true;
        return m_body <= m_length;
    }

    const Setup& m_setup;
    int m_fd;
    bool m_busy = false;
    bool m_whole = false;  // the reply's header is
    size_t m_sent = 0;
    size_t m_head = 0;
    uint64_t m_body = 0;  // received of it
    uint64_t m_length = 0;
    int m_status = 0;
    uint64_t m_number = 0;
    Clock::time_point m_due;
    char m_text[kHeadRoom];
};

// One thread's connections, and when its next request is due.
class Loop {
public:
    Loop(const Setup& setup, unsigned first, std::atomic<uint64_t>& number)
        : m_setup(setup), m_number(number), m_buffer(new char[kReadBytes]) {
        m_epoll = epoll_create1(EPOLL_CLOEXEC);
        if (m_epoll < 0) Fail("epoll_create1");
        for (unsigned i = first; i < setup.connections; i += setup.threads)
            Open();
        if (setup.rate > 0) {
            m_gap = std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(setup.threads / setup.rate));
        }
    }
    ~Loop() { close(m_epoll); }

    Tally Run(Clock::time_point begin, Clock::time_point end) {
        if (m_setup.rate > 0) {
            m_due = begin;
            for (auto& connection : m_connections)
                m_free.push_back(connection.get());
        } else {
            for (auto& connection : m_connections)
                Start(*connection, begin);
        }
        for (;;) {
            const auto now = Clock::now();
            if (now >= end || m_resting == m_connections.size()) return m_tally;
            StartDue(now);
            auto until = end;
            if (m_setup.rate > 0 && !m_free.empty()) until = std::min(until, m_due);
            Wait(until - Clock::now());
        }
    }

private:
    void Open() {
        m_connections.push_back(std::make_unique<Connection>(m_setup));
        epoll_event event{};
        event.events = EPOLLIN | EPOLLOUT | EPOLLET;
        event.data.u64 = m_connections.size() - 1;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_connections.back()->Fd(), &event);
    }

    void StartDue(Clock::time_point now) {
        while (m_setup.rate > 0 && m_due <= now && !m_free.empty()) {
            Connection* connection = m_free.front();
            m_free.pop_front();
            const auto due = m_due;
            m_due += m_gap;
            Start(*connection, due);
        }
    }

    // False: there are no more.
    bool Begin(Connection& connection, Clock::time_point due) {
        uint64_t number = 0;
        if (m_setup.stepAt != 0 || m_setup.requests != 0) number = m_number.fetch_add(1);
        if (m_setup.requests != 0 && number >= m_setup.requests) {
            ++m_resting;
            return false;
        }
        connection.Begin(due, number);
        return true;
    }

    void Start(Connection& connection, Clock::time_point due) {
        if (Begin(connection, due)) Go(connection);
    }

    void Go(Connection& connection) {
        for (;;) {
            switch (connection.Go(m_buffer.get(), m_tally)) {
                case Connection::EResult::Waits:
                    return;
                case Connection::EResult::Lost:
                    // Whoever measures sees it: errors make a run no measurement.
                    ++m_tally.errors;
                    epoll_ctl(m_epoll, EPOLL_CTL_DEL, connection.Fd(), nullptr);
                    return;
                case Connection::EResult::Done:
                    break;
            }
            if (m_setup.rate > 0) {
                m_free.push_back(&connection);
                return;
            }
            if (!Begin(connection, Clock::now())) return;
        }
    }

    void Wait(Clock::duration most) {
        const auto ns = std::max<int64_t>(
            0, std::chrono::duration_cast<std::chrono::nanoseconds>(most).count());
        const timespec timeout{ns / 1000000000, ns % 1000000000};
        epoll_event events[64];
        const int count = epoll_pwait2(m_epoll, events, 64, &timeout, nullptr);
        for (int i = 0; i < count; ++i)
            Go(*m_connections[events[i].data.u64]);
    }

    const Setup& m_setup;
    std::atomic<uint64_t>& m_number;
    std::unique_ptr<char[]> m_buffer;
    int m_epoll;
    std::vector<std::unique_ptr<Connection>> m_connections;
    std::deque<Connection*> m_free;  // at a rate
    Clock::time_point m_due;
    Clock::duration m_gap{};
    size_t m_resting = 0;  // connections that found no request left
    Tally m_tally;
};

void BuildRequest(Setup& setup) {
    std::string body;
    if (!setup.bodyFile.empty()) {
        std::ifstream file(setup.bodyFile, std::ios::binary);
        if (!file) Fail(setup.bodyFile.c_str());
        body.assign(std::istreambuf_iterator<char>(file), {});
    }
    std::string& text = setup.request;
    text = setup.method + " " + setup.path +
           " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(setup.port) + "\r\n";
    for (const std::string& header : setup.headers)
        text += header + "\r\n";
    if (!setup.bodyFile.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += "\r\n";
    setup.bodyAt = text.size();
    text += body;
    if (setup.stepAt != 0 && setup.stepAt + 8 > body.size()) {
        fputs("load: --step-at lies behind the body\n", stderr);
        exit(2);
    }
}

void AskOnce(const Setup& setup, int fd) {
    if (send(fd, setup.request.data(), setup.request.size(), MSG_NOSIGNAL) < 0) Fail("send");
    pollfd answered{fd, POLLIN, 0};
    poll(&answered, 1, -1);
}

Tally Measure(const Setup& setup, double* seconds) {
    std::vector<int> idle;
    for (unsigned i = 0; i < setup.idle; ++i)
        idle.push_back(Connect(setup));
    // The server takes them in the order in which they came: who answers the last one has them all.
    if (!idle.empty()) AskOnce(setup, idle.back());
    std::atomic<uint64_t> number{0};
    std::vector<std::unique_ptr<Loop>> loops;
    for (unsigned i = 0; i < setup.threads; ++i)
        loops.push_back(std::make_unique<Loop>(setup, i, number));
    std::vector<Tally> tallies(setup.threads);
    std::vector<std::thread> threads;
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(setup.seconds));
    for (unsigned i = 0; i < setup.threads; ++i)
        threads.emplace_back([&, i] { tallies[i] = loops[i]->Run(begin, end); });
    Tally all;
    for (unsigned i = 0; i < setup.threads; ++i) {
        threads[i].join();
        all.Add(tallies[i]);
    }
    *seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    for (const int fd : idle)
        close(fd);
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    Setup setup;
    CLI::App app{"Sends one HTTP request again and again, and prints as JSON what came of it."};
    app.add_option("port", setup.port, "port on 127.0.0.1")->required();
    app.add_option("path", setup.path, "target of the request");
    app.add_option("--method", setup.method, "GET if not given");
    app.add_option("--body", setup.bodyFile, "file with the request's body");
    app.add_option("--header", setup.headers, "header line; may be repeated");
    app.add_option("--connections", setup.connections)->check(CLI::Range(1, 100000));
    app.add_option("--threads", setup.threads)->check(CLI::Range(1, 64));
    app.add_option("--idle", setup.idle, "further connections, open and silent")
        ->check(CLI::Range(0, 100000));
    app.add_option("--seconds", setup.seconds)->check(CLI::PositiveNumber);
    app.add_option("--requests", setup.requests, "ends after so many, closed loop only");
    app.add_option("--rate", setup.rate, "requests a second in all; closed loop if not given");
    app.add_option("--least", setup.least, "bytes that a reply's body must have");
    app.add_option("--step-at", setup.stepAt,
                   "offset in the body of a 64-bit number that grows by 1 with every request");
    app.add_option("--steps", setup.steps, "which begins again at this one")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    setup.threads = std::min(setup.threads, setup.connections);
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    BuildRequest(setup);
    double seconds = 0;
    const Tally all = Measure(setup, &seconds);
    const auto us = [&](double share) {
        return static_cast<double>(all.nanoseconds.At(share)) / 1000;
    };
    printf(
        "{\"requests\": %llu, \"errors\": %llu, \"bytes\": %llu, \"seconds\": %.6f, \"us\": "
        "{\"p50\": %.1f, \"p90\": %.1f, \"p99\": %.1f, \"p99.9\": %.1f, \"max\": %.1f}}\n",
        static_cast<unsigned long long>(all.requests), static_cast<unsigned long long>(all.errors),
        static_cast<unsigned long long>(all.bytes), seconds, us(0.5), us(0.9), us(0.99), us(0.999),
        static_cast<double>(all.nanoseconds.Most()) / 1000);
}

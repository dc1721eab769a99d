// loopback: the whole server in one process, as it is shipped, with one worker and with a wire made
// of functions (wire.h): what a request costs the server, and nothing else.
//
//   loopback FOLDER [REQUESTS]     the volume is made in FOLDER; each work is done so many times
//
// Prints for each work a line of its name, the number of requests, and what they needed of calls of
// the wire and of allocations. Run under callgrind (bench/guard), which counts what lies between
// CountingBegins and CountingEnds.
#include "bench/loopback/wire.h"

#include <dlfcn.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <semaphore>
#include <string>
#include <vector>

#include "mediaio/errorlog/sink.h"
#include "mediaio/zemiotypes.h"
#include "platform/platform.h"
#include "zemhttpd/entry/zemhttpd.h"

// Callgrind begins and ends at these; the system call shows in a list of them.
extern "C" __attribute__((noinline, visibility("default"))) void CountingBegins() {
    syscall(SYS_getppid);
}
extern "C" __attribute__((noinline, visibility("default"))) void CountingEnds() {
    syscall(SYS_getppid);
}

namespace {

constexpr DWORD kCreate = 1, kRead = 3, kWrite = 4, kFileInfo = 6, kFrameDesc = 8, kFlush = 10,
                kJoin = 15, kLeave = 16, kKeepAlive = 17;
constexpr size_t kReplyHeader = 12;
constexpr size_t kSmall = size_t{64} << 10, kLarge = size_t{1} << 20;

[[noreturn]] void Fail(const std::string& what) {
    fprintf(stderr, "loopback: %s\n", what.c_str());
    exit(2);
}

template <class... Values>
std::string Bytes(Values... values) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char*>(&values), sizeof(values)), ...);
    return bytes;
}

std::string Field(const std::string& name) {
    std::string field;
    for (const char c : name)
        field += Bytes(static_cast<uint16_t>(c));
    field.resize(520);
    return field;
}

std::string Post(DWORD code, const std::string& body = {}, const std::string& payload = {}) {
    const std::string entity =
        Bytes(DWORD{7}, code, static_cast<DWORD>(body.size())) + body + payload;
    return "POST /zem/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: loopback (test/x.x.x.x)\r\n"
           "Zem-Id: loopback\r\nContent-Length: " +
           std::to_string(entity.size()) + "\r\n\r\n" + entity;
}

std::string EsDesc() {
    std::string record = Bytes(DWORD{1 << 16 | 56}, 1, DWORD{0x67706a6d}, 25, 1, 64, 48);
    record.resize(56);
    return record;
}

std::string Read(ULONGLONG token, DWORD streams) {
    std::string body = Bytes(DWORD{0x11223344}, streams, ULONGLONG{0});
    for (DWORD i = 0; i < streams; ++i) {
        std::string entry = Bytes(ULONGLONG{0}, token, ULONGLONG{0});
        entry.resize(96);
        body += entry;
    }
    return Post(kRead, body);
}

std::string Write(ULONGLONG token, DWORD position, size_t size) {
    std::string entry = Bytes(ULONGLONG{0}, token, position, DWORD{0}, DWORD{1}, DWORD{0},
                              static_cast<DWORD>(size), DWORD{0});
    entry.resize(96);
    return Post(kWrite, Bytes(DWORD{0x55667788}, DWORD{1}, ULONGLONG{0}) + entry,
                std::string(size, 'f'));
}

// Answered when all writes before it have been issued, so that the flush behind it covers them.
std::string RefusedWrite() {
    return Post(kWrite, std::string(16, '\0'));
}

struct Work {
    const char* name;
    std::vector<std::string> requests;  // one after the other, round and round
    uint64_t fileBytes;                 // that each reply must have
    size_t memoryBytes;                 // that each reply must have at least, its head included
};

class CPlay {
public:
    explicit CPlay(int requests) : m_requests(requests) {}

    std::string First() { return Setup(0); }
    // The next request after this reply; empty at the end.
    std::string Next(const std::string& reply, uint64_t fileBytes);

private:
    std::string Setup(size_t step);
    void MakeWorks();
    void Report();

    const int m_requests;
    size_t m_step = 0;
    ULONGLONG m_small = 0, m_large = 0, m_written = 0;
    std::vector<Work> m_works;
    size_t m_work = 0;
    int m_done = -1;  // of the work; below 0: warming up
    Counts m_before;
};

constexpr size_t kSetupSteps = 11;
constexpr int kWarm = 300;  // as many as there are blocks

// The request of the n-th step, made when those before it have been answered.
std::string CPlay::Setup(size_t step) {
    const std::string small = "small", large = "large", written = "written";
    const auto create = [](const std::string& name) {
        return Post(kCreate, Field(name) + Field("") + EsDesc() + Bytes(DWORD{0x13}));
    };
    switch (step) {
        case 0:
            return Post(kJoin, Bytes(DWORD{0}));
        case 1:
            return create(small);
        case 2:
            return Write(m_small, 0, kSmall);
        case 3:
        case 7:
            return RefusedWrite();
        case 4:
            return Post(kFlush, Bytes(m_small));
        case 5:
            return create(large);
        case 6:
            return Write(m_large, 0, kLarge);
        case 8:
            return Post(kFlush, Bytes(m_large));
        case 9:
            return create(written);
        default:
            return Post(kKeepAlive);
    }
}

void CPlay::MakeWorks() {
    const std::string leave = Post(kLeave), join = Post(kJoin, Bytes(DWORD{0}));
    const std::string get = "GET /media/status HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    std::vector<std::string> writes;
    for (DWORD position = 0; position < 16; ++position)
        writes.push_back(Write(m_written, position, kSmall));
    m_works = {
        {"keep-alive", {Post(kKeepAlive)}, 0, 16},
        {"get-file-info", {Post(kFileInfo, Bytes(m_small))}, 0, 64},
        {"get-frame-desc", {Post(kFrameDesc, Bytes(m_small, DWORD{0}, 1, DWORD{0}))}, 0, 64},
        {"read-64k", {Read(m_small, 1)}, kSmall, 96},
        {"read-1m", {Read(m_large, 1)}, kLarge, 96},
        {"read-64k-x22", {Read(m_small, 22)}, 22 * kSmall, 22 * 96},
        {"read-1m-x22", {Read(m_large, 22)}, 22 * kLarge, 22 * 96},
        {"write-64k", writes, 0, 16},
        {"get-status", {get}, 0, 64},
        {"leave-join", {leave, join}, 0, 16},
    };
}

std::string CPlay::Next(const std::string& reply, uint64_t fileBytes) {
    if (reply.compare(0, 13, "HTTP/1.1 200 ") != 0) Fail("refused: " + reply);
    if (m_step < kSetupSteps) {
        ULONGLONG* const token = m_step == 1   ? &m_small
                                 : m_step == 5 ? &m_large
                                 : m_step == 9 ? &m_written
                                               : nullptr;
        const size_t body = reply.find("\r\n\r\n") + 4;
        if (token) {
            if (reply.size() < body + kReplyHeader + 16) Fail("no file was made");
            memcpy(token, reply.data() + body + kReplyHeader + 8, sizeof(*token));
        }
        if (++m_step < kSetupSteps) return Setup(m_step);
        MakeWorks();
        m_done = -kWarm;
        return m_works[0].requests[0];
    }
    const Work& work = m_works[m_work];
    if (fileBytes != work.fileBytes || reply.size() < work.memoryBytes)
        Fail(std::string("not the reply to ") + work.name);
    ++m_done;
    if (m_done == m_requests) {
        CountingEnds();
        Report();
        m_done = -kWarm;
        if (++m_work == m_works.size()) return {};
    } else if (m_done == 0) {
        m_before = CountsSoFar();
        CountingBegins();
    }
    const std::vector<std::string>& requests = m_works[m_work].requests;
    return requests[static_cast<size_t>(m_done + kWarm) % requests.size()];
}

void CPlay::Report() {
    const Counts now = CountsSoFar();
    printf(
        "%s requests %d recv %llu send %llu sendfile %llu setsockopt %llu ioctl %llu "
        "allocations %llu\n",
        m_works[m_work].name, m_requests, now.recv - m_before.recv + 0ull,
        now.send - m_before.send + 0ull, now.sendfile - m_before.sendfile + 0ull,
        now.setsockopt - m_before.setsockopt + 0ull, now.ioctl - m_before.ioctl + 0ull,
        now.allocations - m_before.allocations + 0ull);
}

using Routine = unsigned(WINAPI*)(void*);
std::atomic<Routine> g_worker{nullptr};  // of the server that is being started

unsigned WINAPI NoWork(void*) {
    return 0;
}

void Override(const WCHAR* key, const WCHAR* name, DWORD type, const void* data, size_t size) {
    if (!OverrideRegistryValue(key, name, type, data, static_cast<DWORD>(size)))
        Fail("a registry value is refused");
}

// A port that was free just now.
uint16_t FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (probe < 0 || bind(probe, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("no free port");
    }
    close(probe);
    return ntohs(address.sin_port);
}

CHttpCommandHandler* Start(const std::string& folder, uint16_t& port) {
    constexpr WCHAR kKey[] = TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM");
    constexpr WCHAR kVolumeKey[] = TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs");
    constexpr WCHAR kListenKey[] =
        TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters");
    constexpr WCHAR kLocal[] = TEXT("127.0.0.1\0");
    const std::string registry = folder + "/registry";
    std::ofstream(registry) << "Windows Registry Editor Version 5.00\r\n";
    SetRegistryFile(registry.c_str());
    const std::u16string root(folder.begin(), folder.end());
    Override(kVolumeKey, TEXT("0"), REG_SZ, root.c_str(), (root.size() + 1) * sizeof(WCHAR));
    Override(kListenKey, TEXT("ListenOnlyList"), REG_MULTI_SZ, kLocal, sizeof(kLocal));
    for (int attempt = 0; attempt < 10; ++attempt) {
        port = FreePort();
        const DWORD value = port;
        Override(kKey, TEXT("HttpPort"), REG_DWORD, &value, sizeof(value));
        g_worker = nullptr;
        CHttpCommandHandler* server = nullptr;
        if (CreateZemHttpSvr(&server) == S_OK && server) return server;
    }
    Fail("the server did not start");
}

}  // namespace

// Of the workers, which are started first, only one gets a thread that works: nothing depends on
// who is faster.
extern "C" __attribute__((visibility("default"))) uintptr_t _beginthreadex(
    void* security, unsigned stack, Routine start, void* argument, unsigned flags, unsigned* id) {
    static const auto real =
        reinterpret_cast<decltype(&_beginthreadex)>(dlsym(RTLD_NEXT, "_beginthreadex"));
    Routine first = nullptr;
    if (!g_worker.compare_exchange_strong(first, start) && start == first) start = NoWork;
    return real(security, stack, start, argument, flags, id);
}

// One processor, so that the number of them changes nothing.
static void StayOnOneProcessor() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (!CPU_ISSET(i, &allowed)) continue;
        CPU_ZERO(&allowed);
        CPU_SET(i, &allowed);
        sched_setaffinity(0, sizeof(allowed), &allowed);
        return;
    }
}

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) Fail("usage: loopback FOLDER [REQUESTS]");
    const int requests = argc == 3 ? atoi(argv[2]) : 1200;
    if (requests < 1) Fail("REQUESTS begins at 1");
    StayOnOneProcessor();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    ErrorLogSettings log;
    log.verbosity = ErrorLogVerbosity::kErrors;
    log.path = std::string(argv[1]) + "/log";
    log.toStderr = false;
    if (!ErrorLogConfigure(log, nullptr)) Fail("no log");
    uint16_t port = 0;
    CHttpCommandHandler* const server = Start(argv[1], port);
    CPlay play(requests);
    std::binary_semaphore ended{0};
    CWire wire(port, [&](const std::string& reply, uint64_t fileBytes) {
        std::string next = play.Next(reply, fileBytes);
        if (next.empty()) ended.release();
        return next;
    });
    wire.Send(play.First());
    ended.acquire();
    DestroyZemHttpSvr(server);
}

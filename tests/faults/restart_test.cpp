// The whole library with its own modules, started and stopped a hundred times in one process, in
// every state that clients can bring it to: whatever they are at, the stop ends them, and nothing
// is left behind: no connection, descriptor, handle, thread or memory.
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/http_tuning.h"
#include "platform/posix/object.h"
#include "tests/faults/rawclient.h"
#include "tests/tempfolder.h"
#include "zemhttpd/entry/zemhttpd.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRounds = 24;  // each is ten times as slow there
#else
constexpr int kRounds = 100;
#endif
constexpr int kSettled = kRounds / 4;  // what is made once and kept is there by now

using raw::Bytes;
using raw::CClient;

// Clients of one round. Begin brings the server to its state; what then still runs ends when the
// server does.
class CTraffic {
public:
    CTraffic(uint16_t port, int round) : m_port(port), m_round(round) {}
    ~CTraffic() {
        for (std::thread& thread : m_threads)
            thread.join();
    }
    void Idle() {
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(Add("idle-" + std::to_string(i)).Join());
    }
    void HalfHeads() {
        for (int i = 0; i < 5; ++i)
            Add("half").Send("POST /zem/ HTTP/1.1\r\nZem-Id: ha");
        EXPECT_TRUE(Add("whole").Join());
    }
    // Of one client: the first is at work, the others stand in line.
    void StalledUploads() {
        CClient& first = Add("stalled");
        EXPECT_TRUE(first.Join());
        const ULONGLONG token = first.Create("stalled" + std::to_string(m_round));
        EXPECT_NE(token, 0u);
        for (int i = 0; i < 6; ++i) {
            Add("stalled").Begin(4, CClient::WriteBody(token, 0, 2u << 20), 2u << 20,
                                 std::string(1500000, 's'));
        }
        EXPECT_TRUE(Add("other").Join());
    }
    void UnreadReplies() {
        CClient& first = Add("unread");
        EXPECT_TRUE(first.Join());
        const ULONGLONG token = first.Create("unread" + std::to_string(m_round));
        constexpr DWORD kBig = 8u << 20;
        EXPECT_FALSE(
            first.Call(4, CClient::WriteBody(token, 0, kBig), std::string(kBig, 'u')).empty());
        EXPECT_FALSE(first.Call(10, Bytes(token)).empty());
        for (int i = 0; i < 6; ++i)
            Add("unread", 4096).Begin(3, CClient::ReadBody(token, 0));
        EXPECT_TRUE(Add("other").Join());
    }
    // Clients that write, read, switch real time, leave and join again as fast as they can.
    void Busy() {
        std::latch under_way(3);
        for (int i = 0; i < 3; ++i) {
            m_threads.emplace_back([this, i, &under_way] {
                CClient client(m_port, "busy-" + std::to_string(i));
                client.Join();
                const ULONGLONG token =
                    client.Create("busy" + std::to_string(m_round) + "-" + std::to_string(i));
                client.Call(4, CClient::WriteBody(token, 0, 5000), std::string(5000, 'b'));
                under_way.count_down();
                for (DWORD position = 1; client.Ok(); ++position) {
                    client.Call(4, CClient::WriteBody(token, position, 5000),
                                std::string(5000, 'b'));
                    client.Call(3, CClient::ReadBody(token, position - 1));
                    client.Call(18, "");
                    if (position % 8 == 0) client.Call(10, Bytes(token));
                    if (position % 16 != 0) continue;
                    client.Call(16, "");
                    client.Join();
                }
            });
        }
        under_way.wait();
    }

private:
    CClient& Add(const std::string& id, int receive_bytes = 0) {
        return *m_clients.emplace_back(std::make_unique<CClient>(m_port, id, receive_bytes));
    }
    const uint16_t m_port;
    const int m_round;
    std::vector<std::unique_ptr<CClient>> m_clients;
    std::vector<std::thread> m_threads;
};

size_t EntriesOf(const char* folder) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

struct Figures {
    size_t descriptors = EntriesOf("/proc/self/fd");
    size_t threads = EntriesOf("/proc/self/task");
    size_t handles = posix::OpenHandleCount();
    size_t memory_bytes = mallinfo2().uordblks;  // the sanitizers' allocators do not count here
};

// A port that nobody listens on now.
uint16_t FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    close(fd);
    return ntohs(address.sin_port);
}

void Override(const WCHAR* key, const WCHAR* name, DWORD type, const void* data, size_t size) {
    EXPECT_TRUE(OverrideRegistryValue(key, name, type, data, static_cast<DWORD>(size)));
}

TEST(Restart, AHundredStartsAndStopsWithClientsInEveryStateLeaveNothing) {
    const CTempFolder folder;
    const std::string volume = folder.Path().string();
    const WString wide(volume.begin(), volume.end());
    Override(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs"), TEXT("0"), REG_SZ,
             wide.c_str(), (wide.size() + 1) * sizeof(WCHAR));
    static constexpr WCHAR kLoopback[] = TEXT("127.0.0.1\0");
    Override(TEXT("HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
             TEXT("ListenOnlyList"), REG_MULTI_SZ, kLoopback, sizeof(kLoopback));
    constexpr std::array kStates = {&CTraffic::Idle, &CTraffic::HalfHeads, &CTraffic::Busy,
                                    &CTraffic::StalledUploads, &CTraffic::UnreadReplies};
    Figures settled;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        const DWORD fileServer = round % 2;
        Override(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM"), TEXT("HttpFileServer"),
                 REG_DWORD, &fileServer, sizeof(fileServer));
        CHttpCommandHandler* server = nullptr;
        DWORD port = 0;
        for (int tries = 0; !server && tries < 20; ++tries) {  // another test may take the port
            port = FreePort();
            Override(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\ZEM"), TEXT("HttpPort"),
                     REG_DWORD, &port, sizeof(port));
            CreateZemHttpSvr(&server);
        }
        ASSERT_NE(server, nullptr);
        {
            CTraffic traffic(static_cast<uint16_t>(port), round);
            const size_t state = static_cast<size_t>(round) % (kStates.size() + 1);
            if (state < kStates.size()) (traffic.*kStates[state])();
            EXPECT_EQ(DestroyZemHttpSvr(server), S_OK);
        }
        EXPECT_EQ(HttpTuneConnections(), 0u);
        EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
        EXPECT_EQ(HttpTuneBlockedThreads(), 0u);
        if (HasFailure()) break;
        if (round == kSettled) settled = Figures();
    }
    const Figures end;
    EXPECT_EQ(end.descriptors, settled.descriptors);
    EXPECT_EQ(end.threads, settled.threads);
    EXPECT_EQ(end.handles, settled.handles);
    EXPECT_LT(end.memory_bytes, settled.memory_bytes + (1u << 20));
    std::cout << "[ RESTARTS ] " << kRounds << ": " << settled.descriptors << " descriptors, then "
              << end.descriptors << "; " << settled.threads << " threads, then " << end.threads
              << "; " << settled.memory_bytes << " bytes, then " << end.memory_bytes << "\n";
}

}  // namespace

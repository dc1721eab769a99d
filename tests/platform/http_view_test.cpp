// Views of files: sent from the file, in the answering thread or in the background, while the place
// of their bytes is kept; and when the file is cut meanwhile.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "http_send_support.h"
#include "platform/posix/views.h"

namespace httptest {
namespace {

constexpr size_t kBig = 20u << 20;  // more than any socket buffers take

// A file, a view of all of it, and a descriptor of its own to ask and to change it by.
struct CViewed {
    explicit CViewed(size_t bytes = kBig) : file(bytes), fd(open(file.Path().c_str(), O_RDWR)) {
        view = static_cast<char*>(MapFileView(fd, 0, file.text.size()));
        EXPECT_NE(view, nullptr);
    }
    ~CViewed() {
        UnmapFileView(view);
        close(fd);
    }
    bool InUse(uint64_t offset, uint64_t bytes = 1) const {
        return IsFilePartInUse(fd, offset, bytes);
    }
    CTextFile file;
    const int fd;
    char* view;
};

// The answer is the view, whole.
ULONG SendView(CServer& server, HTTP_REQUEST_ID id, void* view, size_t bytes = kBig) {
    HTTP_DATA_CHUNK chunk{};
    chunk.FromMemory.pBuffer = view;
    chunk.FromMemory.BufferLength = static_cast<ULONG>(bytes);
    std::vector<HTTP_DATA_CHUNK> chunks = {chunk};
    HTTP_RESPONSE response = Response(chunks);
    return SendIt(server, id, response);
}

TEST(View, GoesOutWithoutBeingRead) {
    CTextFile file(3000000);
    const HANDLE handle = file.Open();
    FILE* raw = fopen(file.Path().c_str(), "rb");
    char* view = static_cast<char*>(MapFileView(fileno(raw), 0, file.text.size()));
    fclose(raw);
    CloseHandle(handle);
    ASSERT_NE(view, nullptr);
    {
        CExchange x;
        const std::string head = "head:";
        HTTP_DATA_CHUNK big{}, small{};
        big.FromMemory.pBuffer = view + 7;
        big.FromMemory.BufferLength = 2900000;
        small.FromMemory.pBuffer = view + 100;
        small.FromMemory.BufferLength = 50;
        std::vector<HTTP_DATA_CHUNK> chunks = {Memory(head), big, small};
        HTTP_RESPONSE response = Response(chunks);
        EXPECT_EQ(SendIt(x.server, x.block->Id(), response), NO_ERROR);
        x.server.StartWorkers(1);
        EXPECT_EQ(x.client.Read().body,
                  head + file.text.substr(7, 2900000) + file.text.substr(100, 50));
    }
    ASSERT_EQ(truncate(file.Path().c_str(), 1000), 0);
    {
        CExchange x;  // found before anything is sent: the application answers otherwise
        HTTP_DATA_CHUNK big{};
        big.FromMemory.pBuffer = view;
        big.FromMemory.BufferLength = 2900000;
        std::vector<HTTP_DATA_CHUNK> chunks = {big};
        HTTP_RESPONSE response = Response(chunks);
        EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_HANDLE_EOF);
        EXPECT_EQ(x.server.Reply(x.block->Id(), "", 500), NO_ERROR);
        EXPECT_EQ(x.client.Read().status, 500);
    }
    for (const ULONG bytes : {1000u, 100u}) {
        CExchange x;  // a small piece is not checked before: the connection ends in mid-response
        HTTP_DATA_CHUNK gone{};
        gone.FromMemory.pBuffer = view + 2000000;
        gone.FromMemory.BufferLength = bytes;
        std::vector<HTTP_DATA_CHUNK> chunks = {gone};
        HTTP_RESPONSE response = Response(chunks);
        EXPECT_EQ(SendIt(x.server, x.block->Id(), response), ERROR_INVALID_ADDRESS);
        EXPECT_EQ(x.client.Read().status, 0);
        EXPECT_EQ(x.server.Reply(x.block->Id(), ""), ERROR_CONNECTION_INVALID);
    }
    UnmapFileView(view);
}

// A client that asked and does not read.
struct CIdleReader {
    explicit CIdleReader(CServer& server) : client(server.TcpPort(), 4096) {
        client.Send(Get("/zem/view"));
    }
    CClient client;
};

// The application is done with the view when its call has returned, and may close and delete the
// file. Only the place of the bytes is to be left alone until they are sent.
TEST(View, TheRestIsSentOnFromItsFileWithoutACopy) {
    auto viewed = std::make_unique<CViewed>();
    const std::string text = viewed->file.text;
    const int fd = dup(viewed->fd);
    CServer server;
    CIdleReader reader(server);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::thread library([&] {  // no worker: it does not wait for the client
        EXPECT_EQ(SendView(server, block->Id(), viewed->view), NO_ERROR);
    });
    library.join();
    EXPECT_EQ(HttpTuneBackgroundBytes(), 0u);
    EXPECT_TRUE(IsFilePartInUse(fd, kBig - 1, 1));
    EXPECT_TRUE(IsFilePartInUse(fd, 0, kBig));
    EXPECT_FALSE(IsFilePartInUse(fd, 0, 1)) << "which the socket has taken";
    EXPECT_FALSE(IsFilePartInUse(fd, kBig, 1));
    EXPECT_FALSE(CViewed(4096).InUse(kBig - 1)) << "another file's";
    viewed.reset();
    server.StartWorkers(1);
    EXPECT_EQ(reader.client.Read().body, text);
    EXPECT_TRUE(Eventually([&] { return !IsFilePartInUse(fd, 0, kBig); }));
    close(fd);
}

// However many frames of a file one answer has: descriptors are what clients could use up.
TEST(View, PiecesOfOneFileShareADescriptorInTheBackground) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    };
    const CViewed viewed;
    CServer server;
    CIdleReader reader(server);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    std::vector<HTTP_DATA_CHUNK> chunks(4);
    for (size_t i = 0; i < chunks.size(); ++i) {
        chunks[i].FromMemory.pBuffer = viewed.view + (3 - i) * (kBig / 4);
        chunks[i].FromMemory.BufferLength = kBig / 4;
    }
    HTTP_RESPONSE response = Response(chunks);
    const auto before = descriptors();
    std::thread library([&] { EXPECT_EQ(SendIt(server, block->Id(), response), NO_ERROR); });
    library.join();
    EXPECT_TRUE(viewed.InUse(0));
    EXPECT_EQ(descriptors(), before + 1);
    server.StartWorkers(1);
    std::string text;
    for (size_t i = 0; i < 4; ++i)
        text += viewed.file.text.substr((3 - i) * (kBig / 4), kBig / 4);
    EXPECT_TRUE(reader.client.Read().body == text);
}

TEST(View, AClientThatGoesAwayGivesThePlaceBack) {
    const CViewed viewed;
    CServer server;
    {
        CIdleReader reader(server);
        CBlock* block = server.Take();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(SendView(server, block->Id(), viewed.view), NO_ERROR);
        EXPECT_TRUE(viewed.InUse(kBig - 1));
        reader.client.Reset();
    }
    server.StartWorkers(1);
    EXPECT_TRUE(Eventually([&] { return !viewed.InUse(kBig - 1); }));
}

// New ones cannot be had; those there are work on.
class CNoDescriptors {
public:
    CNoDescriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        rlimit none = m_before;
        none.rlim_cur = 1;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~CNoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &m_before), 0); }

private:
    rlimit m_before{};
};

TEST(View, ACopyIsKeptInsteadWhereNoDescriptorIsLeft) {
    const CViewed viewed;
    CServer server;
    CIdleReader reader(server);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    {
        const CNoDescriptors none;
        EXPECT_EQ(SendView(server, block->Id(), viewed.view), NO_ERROR);
    }
    EXPECT_FALSE(viewed.InUse(0, kBig));
    EXPECT_GT(HttpTuneBackgroundBytes(), 0u);
    EXPECT_EQ(fallocate(viewed.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, kBig), 0);
    server.StartWorkers(1);
    EXPECT_EQ(reader.client.Read().body, viewed.file.text);
    EXPECT_TRUE(Eventually([] { return HttpTuneBackgroundBytes() == 0; }));
}

// A client that reads must not lose its connection because others have taken all there is.
TEST(View, WithoutRoomTheClientIsWaitedForAlthoughARequestWaits) {
    const CTuned no_copy(HttpTune()->background_bytes, uint64_t{0});
    const CTuned never(HttpTune()->stall_ms, 3600000u);
    const CViewed viewed;
    CServer server;
    CIdleReader reader(server);
    CClient other(server.TcpPort());
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    other.Send(Get("/zem/other"));
    // Sanitizers need a descriptor when they see a type for the first time, as they do here.
    std::atomic<bool> go{false};
    std::thread library([&] {
        go.wait(false);
        EXPECT_EQ(SendView(server, block->Id(), viewed.view), NO_ERROR);
    });
    {
        const CNoDescriptors none;
        go = true;
        go.notify_all();
        EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    }
    server.StartWorkers(1);
    EXPECT_TRUE(reader.client.Read().body == viewed.file.text);
    library.join();
    EXPECT_EQ(other.Read().status, 200);
}

// Two workers: one may wait for a client, the other may not.
struct CTwoWorkers {
    CTwoWorkers() {
        server.StartWorkers(2, [this](CServer& s, CBlock& block) {
            const std::string url = block.Request()->pRawUrl;
            if (url == "/zem/view") {
                error = SendView(s, block.Id(), viewed.view);
                ++answered;
                return;
            }
            if (url == "/zem/hold") {
                held = true;
                held.notify_all();
                let_go.wait(false);
            }
            s.Reply(block.Id(), url);
        });
        // A worker waits for its client only while another one stands by, who may still be on the
        // way to the port.
        EXPECT_TRUE(Eventually([&] {
            const int before = answered;
            readers.push_back(std::make_unique<CIdleReader>(server));
            return !Eventually([&] {
                return answered > before || HttpTuneBlockedThreads() == 1;
            }) || HttpTuneBlockedThreads() == 1;
        }));
        EXPECT_EQ(HttpTuneBlockedThreads(), 1u);
    }
    ~CTwoWorkers() {
        let_go = true;
        let_go.notify_all();
        server.CloseQueue();
        server.StopWorkers();
    }
    CViewed viewed;
    std::atomic<int> answered{0};
    std::atomic<ULONG> error{NO_ERROR};
    std::atomic<bool> held{false}, let_go{false};
    CServer server{8};
    std::vector<std::unique_ptr<CIdleReader>> readers;
};

TEST(View, TheLastWorkerDoesNotWaitForAClient) {
    const CTuned never(HttpTune()->stall_ms, 3600000u);
    CTwoWorkers two;
    const int before = two.answered;
    CIdleReader reader(two.server);
    EXPECT_TRUE(Eventually([&] { return two.answered == before + 1; }));
    EXPECT_EQ(two.error, NO_ERROR);
    CClient other(two.server.TcpPort());
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().body, "/zem/other");
    EXPECT_EQ(HttpTuneBlockedThreads(), 1u) << "the first one may go on waiting";
    EXPECT_EQ(reader.client.Read().body, two.viewed.file.text);
}

// However fast the client is, and long before it counts as stalled.
TEST(View, AWorkerWaitsForAClientOnlyWhileNoRequestWaits) {
    const CTuned never(HttpTune()->stall_ms, 3600000u);
    CTwoWorkers two;
    CClient holding(two.server.TcpPort()), other(two.server.TcpPort());
    holding.Send(Get("/zem/hold"));
    EXPECT_TRUE(Eventually([&] { return two.held.load(); }));
    other.Send(Get("/zem/other"));
    EXPECT_EQ(other.Read().body, "/zem/other");
    EXPECT_EQ(HttpTuneBlockedThreads(), 0u);
    EXPECT_EQ(two.readers.back()->client.Read().body, two.viewed.file.text);
}

// The thread that answers is in the middle of the view when the file is cut off by somebody else.
TEST(View, CutInMidSendEndsTheConnection) {
    CTwoWorkers two;
    EXPECT_EQ(ftruncate(two.viewed.fd, 4096), 0);
    const std::string got = two.readers.back()->client.ReadToEnd();
    EXPECT_TRUE(Eventually([&] { return HttpTuneBlockedThreads() == 0; }));
    EXPECT_TRUE(Eventually([&] { return two.error == ERROR_HANDLE_EOF; }));
    EXPECT_NE(got.find("Content-Length: 20971520\r\n"), std::string::npos);
    EXPECT_LT(got.size(), kBig);
}

TEST(View, CutWhileItIsSentFromItsPagesEndsTheConnection) {
    const CTuned pages(HttpTune()->view_send_bytes, ~0u);
    const CTuned no_copy(HttpTune()->background_bytes, uint64_t{0});
    const CTuned no_stall(HttpTune()->stall_ms, 3600000u);
    const CViewed viewed;
    CServer server;
    CIdleReader reader(server);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    ULONG error = NO_ERROR;
    std::thread library([&] { error = SendView(server, block->Id(), viewed.view); });
    EXPECT_TRUE(Eventually([] { return HttpTuneBlockedThreads() == 1; }));
    EXPECT_EQ(ftruncate(viewed.fd, 4096), 0);
    const std::string got = reader.client.ReadToEnd();
    library.join();
    EXPECT_EQ(error, ERROR_INVALID_ADDRESS);
    EXPECT_LT(got.size(), kBig);
}

TEST(View, CutInTheBackgroundEndsTheConnection) {
    const CViewed viewed;
    CServer server;
    CIdleReader reader(server);
    CBlock* block = server.Take();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(SendView(server, block->Id(), viewed.view), NO_ERROR);
    EXPECT_EQ(ftruncate(viewed.fd, 4096), 0);
    server.StartWorkers(1);
    EXPECT_LT(reader.client.ReadToEnd().size(), kBig);
    EXPECT_TRUE(Eventually([&] { return !viewed.InUse(0, kBig); }));
}

}  // namespace
}  // namespace httptest

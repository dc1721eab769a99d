// Prefixes and the sockets behind them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "http_support.h"

namespace httptest {
namespace {

TEST(Initialize, TakesVersionOneOnly) {
    EXPECT_EQ(HttpInitialize(HTTPAPI_VERSION{2, 0}, HTTP_INITIALIZE_SERVER, nullptr),
              ULONG{ERROR_REVISION_MISMATCH});
    EXPECT_EQ(HttpInitialize(HTTPAPI_VERSION_1, HTTP_INITIALIZE_CONFIG, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HttpInitialize(HTTPAPI_VERSION_1, HTTP_INITIALIZE_SERVER, nullptr), NO_ERROR);
    EXPECT_EQ(HttpTerminate(HTTP_INITIALIZE_SERVER, nullptr), NO_ERROR);
    EXPECT_EQ(HttpTerminate(HTTP_INITIALIZE_SERVER, nullptr), NO_ERROR);
    HANDLE queue = nullptr;
    EXPECT_EQ(HttpCreateHttpHandle(nullptr, 0), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HttpCreateHttpHandle(&queue, 1), ERROR_INVALID_PARAMETER);
}

TEST(Listen, RefusesOtherPrefixes) {
    CServer server(0);
    for (const WCHAR* url :
         {TEXT(""), TEXT("https://*:1/a/"), TEXT("http://host:1/a/"), TEXT("http://*:1/a")}) {
        EXPECT_EQ(HttpAddUrl(server.Queue(), url, nullptr), ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(HttpAddUrl(server.Queue(), nullptr, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(HttpAddUrl(server.Port(), Prefix(0, "/a/").c_str(), nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(HttpRemoveUrl(server.Queue(), Prefix(0, "/a/").c_str()), ERROR_FILE_NOT_FOUND);
}

TEST(Listen, TwicePrefixAndTakenPort) {
    CServer server(0);
    EXPECT_EQ(HttpAddUrl(server.Queue(), Prefix(0, "/ZEM/").c_str(), nullptr),
              ERROR_ALREADY_EXISTS);
    CServer other(0);
    EXPECT_EQ(HttpAddUrl(other.Queue(), Prefix(server.TcpPort(), "/a/").c_str(), nullptr),
              ERROR_SHARING_VIOLATION);
}

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

class CTcpSocket {
public:
    ~CTcpSocket() { close(m_descriptor); }
    int Bind(uint16_t port) {
        const sockaddr_in address = Loopback(port);
        return bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    int Connect(uint16_t port) {
        const sockaddr_in address = Loopback(port);
        return connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    uint16_t Port() const {
        sockaddr_in address{};
        socklen_t bytes = sizeof address;
        getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&address), &bytes);
        return ntohs(address.sin_port);
    }

private:
    const int m_descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

uint16_t FreePort() {
    CTcpSocket probe;
    EXPECT_EQ(probe.Bind(0), 0);
    return probe.Port();
}

// A port that was opened ahead is neither open to clients nor free for others until a queue listens
// there.
TEST(Listen, ReservedPortIsTakenByItsFirstPrefix) {
    CServer server;
    server.StartWorkers(1);
    const uint16_t port = FreePort();
    ASSERT_EQ(ReserveListenPort(port), NO_ERROR);
    CTcpSocket early, other;
    EXPECT_EQ(early.Connect(port), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(other.Bind(port), -1);
    EXPECT_EQ(errno, EADDRINUSE);

    ASSERT_EQ(HttpAddUrl(server.Queue(), Prefix(port, "/ahead/").c_str(), nullptr), NO_ERROR);
    CClient client(port);
    client.Send(Get("/ahead/"));
    EXPECT_EQ(client.Read().status, 200);
    EXPECT_EQ(HttpRemoveUrl(server.Queue(), Prefix(port, "/ahead/").c_str()), NO_ERROR);

    // The second time there is nothing opened ahead any more.
    ASSERT_EQ(HttpAddUrl(server.Queue(), Prefix(port, "/ahead/").c_str(), nullptr), NO_ERROR);
    CClient second(port);
    second.Send(Get("/ahead/"));
    EXPECT_EQ(second.Read().status, 200);
}

TEST(Listen, PortThatIsTakenCannotBeReserved) {
    CServer server(0);
    EXPECT_EQ(ReserveListenPort(server.TcpPort()), ULONG{ERROR_SHARING_VIOLATION});
}

TEST(Listen, PortIsClosedWithItsLastPrefixOnly) {
    CServer server;
    server.StartWorkers(1);
    const uint16_t port = server.TcpPort();
    CClient client(port);
    client.Send(Get("/zem/"));
    EXPECT_EQ(client.Read().status, 200);
    EXPECT_EQ(HttpRemoveUrl(server.Queue(), Prefix(0, "/zem/").c_str()), NO_ERROR);
    client.Send(Get("/zem/"));
    EXPECT_EQ(client.Read().status, 404);
    client.Send(Get("/media/"));
    EXPECT_EQ(client.Read().status, 200);
    CClient second(port);
    EXPECT_EQ(HttpRemoveUrl(server.Queue(), Prefix(0, "/media/").c_str()), NO_ERROR);
    EXPECT_EQ(HttpTuneBoundPort(server.Queue(), 0), 0);
    const int refused = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_NE(connect(refused, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(refused);
    client.Send(Get("/media/"));  // what is connected stays
    EXPECT_EQ(client.Read().status, 404);
    EXPECT_EQ(HttpAddUrl(server.Queue(), Prefix(port, "/zem/").c_str(), nullptr), NO_ERROR);
    client.Send(Get("/zem/"));
    EXPECT_EQ(client.Read().status, 200);
}

TEST(Listen, OnlyOnTheAddressesOfTheList) {
    CServer server(0);
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.TcpPort());
    ASSERT_EQ(inet_pton(AF_INET, "127.0.0.2", &address.sin_addr), 1);
    EXPECT_NE(connect(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(other);
}

}  // namespace
}  // namespace httptest

// One client's connection to a server in the same process, made of functions instead of a socket:
// this program's own recv, send, sendmsg, sendfile, setsockopt and ioctl serve the accepted socket,
// so that every request arrives whole and every reply is taken at once, on any machine. A real
// connection lies under it and carries one byte for each request, for epoll to tell of. The server
// is unchanged: its libraries find these functions before the system's.
// After the first request all of it runs in the thread that serves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

struct Counts {
    uint64_t recv = 0;
    uint64_t send = 0;  // and sendmsg
    uint64_t sendfile = 0;
    uint64_t setsockopt = 0;
    uint64_t ioctl = 0;
    uint64_t allocations = 0;  // of the thread that serves
};

class CWire {
public:
    // `taken` gets each reply (its head and what was sent from memory behind it; the bytes of files
    // are counted only) and gives the next request, or an empty text at the end.
    using Taken = std::function<std::string(const std::string& reply, uint64_t fileBytes)>;

    // Connects to 127.0.0.1. Ends the program with a message when that fails.
    CWire(uint16_t port, Taken taken);
    ~CWire();
    CWire(const CWire&) = delete;
    CWire& operator=(const CWire&) = delete;

    void Send(std::string request);

    // What the functions below are asked; `fd` is the server's side.
    bool Is(int fd) const { return fd >= 0 && fd == m_server; }
    void Accepted(int fd) {
        if (m_server < 0) m_server = fd;
    }
    long Receive(int fd, void* to, size_t room, int flags);
    long Take(const struct msghdr& message);
    long TakeFile(size_t bytes);
    int Unread() const { return static_cast<int>(m_request.size() - m_at); }
    void Nudge();

private:
    void Look();

    Taken m_taken;
    int m_client = -1;
    int m_server = -1;
    std::string m_request;
    size_t m_at = 0;  // of the request, taken so far
    std::string m_reply;
    uint64_t m_fileBytes = 0;
    uint64_t m_wanted = 0;  // bytes of the whole reply; 0: its head is not complete
};

// Calls so far. The numbers of allocations are zero where a sanitizer has functions of its own.
Counts CountsSoFar();

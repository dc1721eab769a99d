// The server for the fuzz target of the commands: its real dispatcher and handlers, the default
// media library on a volume in memory, no sockets. Requests are parsed and laid out by the HTTP
// interface's own functions; what the server sends is checked and counted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

struct Answer {
    int status = 0;
    std::string body;  // of the chunks in memory
};

class CCommandServer {
public:
    static CCommandServer& Instance();

    // One request: its head, its body, how much of that arrives with the head, whether the client
    // is gone behind the body's end, and whether the answer is refused by the network.
    struct Request {
        std::string head;
        std::string body;
        size_t received_bytes = ~size_t{0};
        bool gone = false;
        bool refuse = false;
    };
    // Runs it and waits until it has ended; false when the interface itself would refuse it.
    bool Run(const Request& request, Answer& answer);

    // Everybody leaves; every block, every byte of frame memory and every file must be back.
    void Reset();

    const std::u16string& Root() const { return m_wideRoot; }

private:
    CCommandServer();
    bool Lay(const Request& request, void* buffer, size_t& used);

    std::string m_root;
    std::u16string m_wideRoot;
    uint64_t m_lastId = 0;
};

}  // namespace fuzz

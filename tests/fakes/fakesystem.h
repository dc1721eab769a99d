// A system without a network: the HTTP calls of start and stop, the completion port and thread
// creation are recorded in order and fail when the test says so. Receives stay posted until the
// test completes them. Any thread.
#pragma once

#include "platform/platform.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class CFakeSystem {
public:
    CFakeSystem();  // installs itself
    ~CFakeSystem();
    CFakeSystem(const CFakeSystem&) = delete;
    CFakeSystem& operator=(const CFakeSystem&) = delete;

    // Errors by event name, for example "HttpAddUrl http://*:80/media/". Calls that answer with a
    // handle or a BOOL fail with that last error. Thread starts are "start issuer", "start
    // sniffer", "start worker 2" (counting from 0).
    std::map<std::string, ULONG> errors;
    std::map<std::string, HRESULT> coInitialize;  // "" for every thread

    std::vector<std::string> Events() const;
    bool Happened(const std::string& event) const;
    size_t IndexOf(const std::string& event) const;  // Events().size() when it did not happen

    struct Receive {
        HTTP_REQUEST_ID requestId;
        ULONG flags;
        HTTP_REQUEST* buffer;
        ULONG size;
        OVERLAPPED* overlapped;
    };
    // Waits until `count` receives were posted in all, and returns them.
    std::vector<Receive> WaitForReceives(size_t count);
    size_t ReceiveCount() const;
    // Puts a packet into the port; a failed one carries `error`.
    void Complete(OVERLAPPED* overlapped, ULONG_PTR key, DWORD error = NO_ERROR);
    // Waits until nothing is in the port and every worker waits for more.
    void WaitUntilIdle(int workers);
    DWORD concurrency = 0;
    ULONG_PTR portKey = 0;
    // So many packets of the library's own find no memory from now on.
    std::atomic<int> failPosts{0};

    // --- for the wraps ---
    struct Packet {
        OVERLAPPED* overlapped;
        ULONG_PTR key;
        DWORD error;
    };
    ULONG Note(const std::string& event);  // its error
    void AddReceive(const Receive& receive);
    void AbortReceives();  // what a closed queue does
    Packet Take();
    bool Empty() const;
    int workersStarted = 0;

private:
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<std::string> m_events;
    std::vector<Receive> m_receives;
    std::set<OVERLAPPED*> m_pending;  // receives that have not completed
    std::deque<Packet> m_packets;
    int m_waiting = 0;
};

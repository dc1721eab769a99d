// SIGPIPE, which sendfile may raise and the host must never see: it knows no MSG_NOSIGNAL. The
// layer's own threads block the signal for good; any other thread does so around the call.
#pragma once

namespace posix {

// For the threads that the layer starts.
void BlockPipeSignalForGood();

// Blocks SIGPIPE for the calling thread, and takes back one that was raised meanwhile.
class CPipeGuard {
public:
    CPipeGuard();
    ~CPipeGuard();
    CPipeGuard(const CPipeGuard&) = delete;
    CPipeGuard& operator=(const CPipeGuard&) = delete;

private:
    bool m_active;  // the thread does not block it anyway
    bool m_was_pending = false;
    bool m_was_blocked = false;
};

}  // namespace posix

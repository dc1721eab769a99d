// A media library for tests: CZemIo, CZemChannelIo and CZemMemAllocator that record every call with
// its arguments and do what the test says: results per operation, output values, frame I/O that
// completes at once or when the test says so. Any thread.
#pragma once

#include "mediaio/zemchannelio.h"
#include "mediaio/zemmemallocator.h"
#include "platform/platform.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// One call. `op` is the function's name; overloads with a token have the suffix "/token", those
// with a name "/name", destructors are "~CZemChannelIo" and "~CZemMemAllocator", constructors the
// class name. Fields that the call does not have stay as they are here.
struct MediaCall {
    std::string op;
    const void* self = nullptr;  // the CZemIo* or the allocator
    WString name;                // file, volume, directory or client ID; attribute name
    WString name2;               // auxName; target of a move; value text of an attribute
    ULONGLONG token = 0;
    DWORD position = 0;
    LONG count = 0;
    LONG rate = 0;
    LONG type = 0;
    DWORD flags = 0;  // open, create, stripe-open, configuration flags
    DWORD stripeFlags = 0;
    DWORD segmentA = 0, segmentB = 0;
    bool boolean = false;  // exclusive, openBool, real time on
    ZemEsDesc esDesc{};
    vdrTimecode_s timecode{};
    const void* pointer =
        nullptr;          // allocator, document's IDispatch, ZemIoDesc or ZemElemStrmIoData
    WString variantText;  // BSTR of an attribute update
    VARTYPE variantType = 0;
    size_t size = 0;  // of an allocator; channel number of a construction
};

class CFakeMedia {
public:
    void Reset();

    // --- what the library answers; set before the calls ---
    std::map<std::string, HRESULT> results;        // by op; default S_OK
    std::function<void(const MediaCall&)> onCall;  // runs before the answer, on the calling thread
    ULONGLONG token = 0x1122334455667788ull;
    ZemEsDesc esDesc{};
    std::vector<ZemFrameDesc> frameDescs;  // positions past its end give zero records
    DWORD firstMark = 0, secondMark = 0;
    DWORD attributes = 0;
    ULONGLONG fileSize = 0, totalSpace = 0, freeSpace = 0;

    // --- frame I/O ---
    bool pendReads = false;  // ReadFrame answers ERROR_IO_PENDING
    bool pendWrites = false;
    HRESULT frameStatus = S_OK;       // status of descriptor and ordinary entries
    std::string frameData = "frame";  // one buffer per ordinary entry of a read
    // Replace the answers altogether; the descriptor is what the server handed over.
    std::function<HRESULT(CZemChannelIo&, ZemIoDesc&)> onReadFrame, onWriteFrame,
        onGetWriteFrameBuffers;
    std::vector<BYTE> writeBuffer;  // what GetWriteFrameBuffers handed out last
    // Calls the completion routines of everything that is pending, on this thread; how many.
    size_t CompletePending(HRESULT status = S_OK);
    size_t PendingCount() const;

    // --- what happened ---
    std::vector<MediaCall> Calls() const;
    std::vector<MediaCall> Calls(const std::string& op) const;
    size_t Count(const std::string& op) const { return Calls(op).size(); }
    void Forget();             // the calls so far
    int LiveChannels() const;  // constructed and not destroyed
    int LiveAllocators() const;

    // --- for the fake classes ---
    HRESULT Record(const MediaCall& call);
    void AddPending(const CZemChannelIo* channel, ZemIoDesc* desc);
    void CancelPending(const CZemChannelIo* channel);
    void CountLive(int channels, int allocators);

private:
    struct Pending {
        const CZemChannelIo* channel;
        ZemIoDesc* desc;
    };
    mutable std::mutex m_lock;
    std::vector<MediaCall> m_calls;
    std::vector<Pending> m_pending;
    int m_liveChannels = 0;
    int m_liveAllocators = 0;
};

CFakeMedia& FakeMedia();

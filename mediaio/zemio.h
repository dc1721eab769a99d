// Base I/O class (module zembaseio): the operations on media files that one client may ask for.
//
// Names are UTF-16, `/` or `\`, relative to the volume root or absolute below it; a name that
// leaves the root is E_ACCESSDENIED. `auxName` selects a stream of a multi-stream file (v0, a1, tc;
// empty: the first). Every operation returns an HRESULT, never throws, and may be called from
// several threads at once. Output arguments are written only on success unless said otherwise. The
// order of the virtual operations is part of the binary interface.
#pragma once

#include "mediaio/zemiotypes.h"
#include "platform/platform.h"

#pragma GCC visibility push(default)

class CZemIo {
public:
    CZemIo();
    virtual ~CZemIo();  // completes or cancels its own I/O first
    CZemIo(const CZemIo&) = delete;
    CZemIo& operator=(const CZemIo&) = delete;

    // Creates a file for writing (and reading); missing directories are made on the way. Without
    // kFileCreateNew or kFileTruncate an existing file of the same media type keeps its frames.
    // ERROR_SHARING_VIOLATION: it has a writer. The token is never 0 on success. `security` is
    // null.
    virtual HRESULT CreateFileW(const WCHAR* fileName, const WCHAR* auxName,
                                const ZemEsDesc& esDesc, DWORD createFlags, void* security,
                                ULONGLONG& token, bool exclusive);
    virtual HRESULT OpenFile(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                             DWORD openFlags, bool openBool, ULONGLONG& token);
    // Base form: the frame's bytes are copied into `buffer`; `size_bytes` is its room on entry, the
    // frame's size after.
    virtual HRESULT ReadFrame(ULONGLONG token, DWORD position, VioFrameRate_t rate,
                              DWORD& size_bytes, void* buffer);
    // Channel form, asynchronous: HRESULT_FROM_WIN32(ERROR_IO_PENDING) when the completion routine
    // of the descriptor will be called from a thread of the library; any other result means that
    // the I/O is finished, the statuses are set and the routine will not be called. The base class
    // refuses the channel forms with E_NOTIMPL.
    virtual HRESULT ReadFrame(ZemIoDesc& desc);
    // Gives back the buffers that a finished ReadFrame put into the entries, and clears them there.
    virtual HRESULT ReadFrameComplete(ZemElemStrmIoData& streams);
    // Fills the buffer pointers of every ordinary entry: one contiguous run for all of them, in
    // entry order.
    virtual HRESULT GetWriteFrameBuffers(ZemIoDesc& desc);
    // Asynchronous as ReadFrame. The buffers return to the library whatever the result.
    virtual HRESULT WriteFrame(ZemIoDesc& desc);
    virtual HRESULT CloseFile(ULONGLONG token);
    virtual HRESULT GetFileInfo(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                                DWORD openFlags, ZemEsDesc& esDesc);
    virtual HRESULT GetFileInfo(ULONGLONG token, ZemEsDesc& esDesc);
    // Descriptors of `count` frames from `position` on; positions past the last frame give all-zero
    // records.
    virtual HRESULT GetFrameDesc(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                                 DWORD openFlags, DWORD position, LONG count, ZemFrameDesc* descs);
    virtual HRESULT GetFrameDesc(ULONGLONG token, DWORD position, LONG count, ZemFrameDesc* descs,
                                 VioFrameRate_t rate);
    // Returns after data and index are on the device.
    virtual HRESULT FlushBuffers(ULONGLONG token);
    // Marks that were never set are 0 and the frame count. They are set by writing frames 0 and 1
    // of stream `mk`: the description's position is the mark.
    virtual HRESULT GetFileMarks(ULONGLONG token, DWORD& firstMark, DWORD& secondMark);
    virtual HRESULT GetFileMarks(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                                 DWORD openFlags, DWORD& firstMark, DWORD& secondMark);
    // Gives every frame, those still to come included, a running timecode from `start`: all or
    // nothing, durable.
    virtual HRESULT StripeTimecode(const WCHAR* fileName, const WCHAR* auxName, MediaFileType type,
                                   DWORD openFlags, const vdrTimecode_s& start, DWORD stripeFlags);
    virtual const WCHAR* GetClientId() const;  // valid until SetClientId or destruction
    virtual HRESULT Connect(const WCHAR* serverName);
    virtual HRESULT Disconnect();
    virtual HRESULT SetRemoteIoRealTime(BOOL on);
    virtual HRESULT SetIoRealTime(BOOL on);
    // Erases the frames from segmentA to before segmentB (0xFFFFFFFF: to the end), durably; holes
    // stay holes.
    virtual HRESULT EraseSegment(ULONGLONG token, DWORD segmentA, DWORD segmentB,
                                 MediaFileType type);
    virtual HRESULT QueryFileSystemSpace(const WCHAR* volumeName, ULARGE_INTEGER& total,
                                         ULARGE_INTEGER& free);
    virtual HRESULT GetFileAttributesW(const WCHAR* fileName, DWORD& attributes);
    virtual HRESULT DeleteFileW(const WCHAR* fileName);
    virtual HRESULT GetFileSize(const WCHAR* fileName, ULONGLONG& size_bytes);
    virtual HRESULT CreateDirectoryW(const WCHAR* directoryName);
    virtual HRESULT MoveFileW(const WCHAR* fromName, const WCHAR* toName);

    // At most 259 characters are kept; set once, before any I/O.
    void SetClientId(const WCHAR* clientId);

protected:
    struct State;
    State* m_io;  // the client's open files and identity; owned
};

#pragma GCC visibility pop

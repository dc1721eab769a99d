// Channels on a volume of their own in a temporary directory, used as the server
// uses them, with each call waited for.
#pragma once

#include "mediaio/store/filetable.h"
#include "mediaio/zemchannelio.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/posix/views.h"
#include "tests/tempfolder.h"

namespace mediatest {

inline const HRESULT kPending = HRESULT_FROM_WIN32(ERROR_IO_PENDING);
inline const HRESULT kEndOfMedia = HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);

inline WString Wide(const std::string& text) {
    return WString(text.begin(), text.end());
}

inline ZemEsDesc Describe(MediaFileType type) {
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = type;
    desc.rateNumerator = 25;
    desc.rateDenominator = 1;
    return desc;
}

inline std::vector<uint8_t> Bytes(uint32_t seed, size_t size) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

// One frame I/O with its descriptor, entries and completion.
struct Io {
    explicit Io(uint32_t entryCount = 1) {
        streams = {entryCount, entries};
        desc.streamData = &streams;
        desc.completionRoutine = [](void* context) {
            static_cast<Io*>(context)->completed.set_value();
        };
        desc.completionContext = this;
        desc.inUse = 1;
    }
    // Waits when the library said that it would call.
    HRESULT Wait(HRESULT hr) {
        pending = hr == kPending;
        if (!pending) return hr;
        completed.get_future().wait();
        return desc.status;
    }
    ElemStrmEntry entries[kMaxStreamEntries] = {};
    ZemElemStrmIoData streams{};
    ZemIoDesc desc{};
    std::promise<void> completed;
    bool pending = false;
};

// The bytes that a reader was given, fetched as the network does: from the file, not from the page.
inline std::vector<uint8_t> Fetch(const ZemIoBuffer& buffer) {
    std::vector<uint8_t> bytes(buffer.length_bytes);
    int descriptor = -1;
    uint64_t offset = 0;
    if (FindFileView(buffer.data, buffer.length_bytes, &descriptor, &offset)) {
        const ssize_t n = pread(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    } else {
        memcpy(bytes.data(), buffer.data, bytes.size());
    }
    return bytes;
}

class CVolumeTest : public testing::Test {
protected:
    CVolumeTest() {
        UseRoot(m_root);
        m_allocator.Initialize(125829120, nullptr);
        m_channel = NewChannel();
    }
    ~CVolumeTest() override {
        m_channel.reset();
        EXPECT_EQ(m_allocator.BytesInUse(), 0u) << "all frame memory came home";
        zemstore::AwaitNoMediaFiles();  // no file stays open
    }

    // For channels that are made from now on.
    static void UseRoot(const std::string& path) {
        const WString root = Wide(path);
        OverrideRegistryValue(TEXT("HKEY_LOCAL_MACHINE\\Software\\Quorvane Group\\RUD\\vfs"),
                              TEXT("0"), REG_SZ, root.c_str(),
                              static_cast<DWORD>((root.size() + 1) * sizeof(WCHAR)));
    }
    std::unique_ptr<CZemChannelIo> NewChannel() {
        auto channel = std::make_unique<CZemChannelIo>(0x8001);
        channel->SetClientId(TEXT("client"));
        channel->SetAllocators(&m_allocator, nullptr);
        return channel;
    }

    ULONGLONG Create(const char* name, MediaFileType type = kMediaFileVideo, DWORD flags = 0,
                     CZemChannelIo* channel = nullptr) {
        ULONGLONG token = 0;
        const HRESULT hr = Channel(channel).CreateFileW(
            Wide(name).c_str(), TEXT(""), Describe(type), flags, nullptr, token, true);
        EXPECT_EQ(hr, S_OK) << name;
        return token;
    }
    ULONGLONG Open(const char* name, DWORD flags = kFileRead, CZemChannelIo* channel = nullptr,
                   const WCHAR* aux = TEXT("")) {
        ULONGLONG token = 0;
        HRESULT hr;
        do {  // a foreign file may take longer to open than a caller is kept
            hr = Channel(channel).OpenFile(Wide(name).c_str(), aux, kMediaFileAny, flags, false,
                                           token);
        } while (hr == HRESULT_FROM_WIN32(ERROR_BUSY));
        EXPECT_EQ(hr, S_OK) << name;
        return token;
    }
    // Closes the only token of a file and waits until the library has forgotten the file, so that
    // whoever opens it next begins anew.
    void CloseLast(ULONGLONG token) {
        ASSERT_EQ(m_channel->CloseFile(token), S_OK);
        zemstore::AwaitNoMediaFiles();
    }
    // Takes a file out of the page cache. False where the system keeps it in memory all the same.
    bool Forget(const char* name) const {
        const int file = open((m_root + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_GE(file, 0) << name;
        bool gone = false;
        // What another processor has just mapped or read stays the first time.
        for (int tries = 0; !gone && tries < 1000; ++tries) {
            EXPECT_EQ(fsync(file), 0);
            EXPECT_EQ(posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED), 0);
            char byte;
            iovec vector{&byte, 1};
            gone = preadv2(file, &vector, 1, 0, RWF_NOWAIT) < 0 && errno == EAGAIN;
            std::this_thread::yield();
        }
        close(file);
        return gone;
    }
    HRESULT Write(ULONGLONG token, uint32_t position, const std::vector<uint8_t>& bytes,
                  CZemChannelIo* channel = nullptr) {
        Io io;
        ElemStrmEntry& entry = io.entries[0];
        entry.token = token;
        entry.position = position;
        entry.bufferCount = 1;
        entry.buffers[0].length_bytes = bytes.size();
        const HRESULT hr = Channel(channel).GetWriteFrameBuffers(io.desc);
        if (FAILED(hr)) return hr;
        if (!bytes.empty()) memcpy(entry.buffers[0].data, bytes.data(), bytes.size());
        io.Wait(Channel(channel).WriteFrame(io.desc));
        EXPECT_EQ(io.desc.status, entry.status);
        return entry.status;
    }
    HRESULT Read(ULONGLONG token, uint32_t position, std::vector<uint8_t>& bytes,
                 CZemChannelIo* channel = nullptr, bool* pending = nullptr) {
        Io io;
        io.entries[0].token = token;
        io.entries[0].position = position;
        io.Wait(Channel(channel).ReadFrame(io.desc));
        if (pending != nullptr) *pending = io.pending;
        bytes.clear();
        for (int32_t i = 0; i < io.entries[0].bufferCount; ++i) {
            const std::vector<uint8_t> more = Fetch(io.entries[0].buffers[i]);
            bytes.insert(bytes.end(), more.begin(), more.end());
        }
        Channel(channel).ReadFrameComplete(io.streams);
        return io.desc.status < 0 ? io.desc.status : io.entries[0].status;
    }
    CZemChannelIo& Channel(CZemChannelIo* channel) {
        return channel != nullptr ? *channel : *m_channel;
    }
    std::string Path(const std::string& name) const { return m_root + "/" + name; }

    const CTempFolder m_folder;
    const std::string m_root = m_folder.Path().string();
    CZemMemAllocator m_allocator;
    std::unique_ptr<CZemChannelIo> m_channel;
};

}  // namespace mediatest

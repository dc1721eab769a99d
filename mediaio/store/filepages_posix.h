// The pages of an open file that the system has in memory, and the views that show them. The system
// keeps pages in pieces of up to some megabytes, and a socket that sends from the file has parts of
// such pieces. A hole lets a piece go that lies whole in it; its part of any other it clears where
// it is, also under the hands of a socket. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zemstore {

class CFilePages {
public:
    explicit CFilePages(int descriptor) : m_descriptor(descriptor) {}
    CFilePages(const CFilePages&) = delete;
    CFilePages& operator=(const CFilePages&) = delete;

    // IStoreFile's.
    void* MapView(uint64_t offset_bytes, size_t size_bytes);
    void UnmapView(void* view);
    bool LetGo(uint64_t offset_bytes, uint64_t size_bytes);

private:
    struct View {
        char* start;
        uint64_t offset_bytes;
        uint64_t size_bytes;
    };

    void Forget(uint64_t offset_bytes, uint64_t size_bytes);
    bool InMemory(uint64_t offset_bytes, size_t size_bytes);
    bool MayReachAcross(uint64_t edge_bytes);
    bool EdgeIsFree(uint64_t edge_bytes);

    const int m_descriptor;
    std::mutex m_lock;  // guards m_views
    std::vector<View> m_views;
};

}  // namespace zemstore

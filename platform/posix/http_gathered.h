// A body that comes too slowly for a worker to wait for it, or whose length nobody knows: gathered
// in memory of the layer's own before its request is delivered. What all connections of the process
// hold together is bounded. Used by the thread that owns the connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace posix {

// The last quarter of the room is for small bodies, and they do not wait for large ones: a few
// clients that declare much do not keep everybody out.
enum EUpload : uint8_t { kSmallUpload, kLargeUpload };
inline constexpr uint64_t kSmallUploadBytes = 8u << 20;
inline EUpload UploadOf(uint64_t room_bytes) {
    return room_bytes <= kSmallUploadBytes ? kSmallUpload : kLargeUpload;
}

class CGatheredBody {
public:
    // How much those of a kind may hold together, so that no body of it may ever have more.
    static uint64_t BoundOf(EUpload kind);

    // Null when the bound or the system does not allow it.
    static std::unique_ptr<CGatheredBody> Make(uint64_t room_bytes);
    ~CGatheredBody();
    CGatheredBody(const CGatheredBody&) = delete;
    CGatheredBody& operator=(const CGatheredBody&) = delete;

    // Makes the room that large; what was gathered stays. False: as before.
    bool Grow(uint64_t room_bytes);

    uint64_t Room() const { return m_room; }
    uint64_t Gathered() const { return m_end; }
    bool IsFull() const { return m_end == m_room; }
    // Where the next bytes go: from End() up to Limit(), of which SetEnd tells.
    char* End() { return m_data + m_end; }
    char* Limit() { return m_data + m_room; }
    void SetEnd(const char* end) { m_end = static_cast<uint64_t>(end - m_data); }

    // Hands out what was gathered, in order; the bytes moved.
    size_t Take(char* to, size_t size);
    bool IsTaken() const { return m_begin == m_end; }

    static uint64_t BytesHeld();

private:
    CGatheredBody() = default;

    char* m_data = nullptr;
    uint64_t m_room = 0;
    uint64_t m_begin = 0, m_end = 0;
};

}  // namespace posix

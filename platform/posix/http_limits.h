// The limits of the HTTP layer, in one place: those of the interface that it stands in for, and the
// sizes of its own buffers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace posix {

inline constexpr size_t kMaxHeadBytes = 16384;  // request line and headers together
inline constexpr size_t kMaxMethodBytes = 255;
inline constexpr size_t kMaxHeaderCount = 256;
inline constexpr size_t kMaxSegmentChars = 260;  // of a URL's path
inline constexpr size_t kMaxSegments = 255;
inline constexpr size_t kMaxTrailerBytes = 16384;  // chunk extensions and trailers of one body
inline constexpr size_t kMaxChunkLineBytes = 4096;

// A head must leave this much of a receive buffer of at least kUsualReceiveBytes free.
inline constexpr size_t kUsualReceiveBytes = 4096;
inline constexpr size_t kReserveBytes = 128;

// One read takes at most this much, so that the bulk of an upload stays in the socket until its
// receiver reads it into place.
inline constexpr size_t kReadBytes = 8192;
inline constexpr size_t kBigBufferBytes = kMaxHeadBytes + 4096;
inline constexpr size_t kChunkRoomBytes = 1024;  // for the framing of a chunked body

// A large body is delivered when this much of it, or all, has arrived.
inline constexpr uint32_t kLowWaterBytes = 1u << 20;

inline constexpr uint32_t kRequestsAtHome = 64;        // before a connection looks for its lane
inline constexpr int kPipelineTurn = 16;               // requests before others get their turn
inline constexpr size_t kTurnBytes = 1u << 20;         // sent or discarded before others get theirs
inline constexpr uint64_t kLongBytes = 256 * 1024;     // others need not wait behind this much
inline constexpr size_t kCopyAtOnceBytes = 64 * 1024;  // a rest this small is never waited for

}  // namespace posix

// Records and codes that the server, the media I/O modules and remote clients exchange. The sizes
// are fixed: these records travel inside command and reply bodies as they stand (little-endian).
// Plain data only; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// Kind of media in a file. CMD_OPEN_FILE and the name forms of the queries may pass kMediaFileAny.
enum MediaFileType : int32_t {
    kMediaFileAny = 0,
    kMediaFileVideo = 1,
    kMediaFileAudio = 2,
    kMediaFileTimecode = 3,
    kMediaFileData = 4,
};

// Its word, as programs print it.
inline constexpr const char* MediaTypeText(int32_t mediaType) {
    switch (mediaType) {
        case kMediaFileVideo:
            return "video";
        case kMediaFileAudio:
            return "audio";
        case kMediaFileTimecode:
            return "timecode";
        case kMediaFileData:
            return "data";
        default:
            return "unknown";
    }
}

// Frame rate in which a client counts positions; kFrameRateFile takes the file's own.
enum VioFrameRate_t : int32_t {
    kFrameRateFile = 0,
    kFrameRate23976 = 1,  // 24000/1001
    kFrameRate24 = 2,
    kFrameRate25 = 3,
    kFrameRate2997 = 4,  // 30000/1001
    kFrameRate30 = 5,
    kFrameRate50 = 6,
    kFrameRate5994 = 7,  // 60000/1001
    kFrameRate60 = 8,
};

// Time address of a frame, BCD with the flag bits of SMPTE ST 12-1: bit 6 of `frames` is the
// drop-frame flag, bit 7 the colour-frame flag; bit 7 of `seconds` is the field flag (odd frame of
// a pair at rates above 30).
struct vdrTimecode_s {
    uint8_t frames;
    uint8_t seconds;
    uint8_t minutes;
    uint8_t hours;
};
static_assert(sizeof(vdrTimecode_s) == 4);
inline constexpr uint8_t kTimecodeDropFrameBit = 0x40;  // in `frames`
inline constexpr uint8_t kTimecodeFieldBit = 0x80;      // in `seconds`
// The digits beside the flags.
inline constexpr uint8_t kTimecodeFramesDigits = 0x3F;
inline constexpr uint8_t kTimecodeSecondsDigits = 0x7F;
inline constexpr uint8_t kTimecodeMinutesDigits = 0x7F;
inline constexpr uint8_t kTimecodeHoursDigits = 0x3F;

// Elementary-stream descriptor: what a file holds. A client fills it for CMD_CREATE_FILE
// (frameCount and flags are then ignored) and receives it from CMD_GET_FILE_INFO. Fields that do
// not apply to the media type are 0.
struct ZemEsDesc {
    uint32_t sizeVersion;    // kEsDescVersion1: low half the record's size, high half its version
    int32_t mediaType;       // MediaFileType
    uint32_t codec;          // four-character code, first character in the low byte
    uint32_t rateNumerator;  // frames per second = rateNumerator / rateDenominator
    uint32_t rateDenominator;
    uint32_t width;       // pixels
    uint32_t height;      // lines of a frame
    uint32_t sampleRate;  // samples per second
    uint16_t channels;
    uint16_t bitsPerSample;
    uint32_t frameCount;  // position of the last frame plus one
    vdrTimecode_s startTimecode;
    uint32_t flags;        // kEsFlag…
    uint32_t reserved[2];  // 0
};
inline constexpr uint32_t kEsDescVersion1 = (1u << 16) | 56u;
inline constexpr uint32_t kEsFlagDropFrame = 0x1;  // startTimecode counts in drop-frame
inline constexpr uint32_t kEsFlagStriped = 0x2;    // frames carry a timecode written by striping
inline constexpr uint32_t kEsFlagGrowing = 0x4;    // a writer has the file open
inline constexpr uint32_t kEsFlagReadOnly = 0x8;   // a foreign file
static_assert(sizeof(ZemEsDesc) == 56 && offsetof(ZemEsDesc, mediaType) == 4);
static_assert(offsetof(ZemEsDesc, frameCount) == 36 && offsetof(ZemEsDesc, reserved) == 48);

// What is known of one frame. The server passes on the words at 0, 8 and 16.
struct ZemFrameDesc {
    uint32_t dataSize;  // bytes of coded data
    uint32_t position;  // frame number in the file
    uint32_t flags;     // kFrameFlag…
    // Presentation time from the start of the file, 100 ns units, 64 bits in two halves.
    uint32_t presentationTimeLow;
    vdrTimecode_s timecode;
    uint32_t presentationTimeHigh;
};
inline constexpr uint32_t kFrameFlagKey = 0x1;
inline constexpr uint32_t kFrameFlagPresent = 0x2;  // clear for a hole
inline constexpr uint32_t kFrameFlagErased = 0x4;
inline constexpr uint32_t kFrameFlagCorrupt = 0x8;  // its checksum was found not to match
static_assert(sizeof(ZemFrameDesc) == 24);
static_assert(offsetof(ZemFrameDesc, flags) == 8 && offsetof(ZemFrameDesc, timecode) == 16);

// Open flags (CMD_OPEN_FILE) and create flags (CMD_CREATE_FILE). Bits that are not listed are
// refused with E_INVALIDARG.
inline constexpr uint32_t kFileRead = 0x01;
inline constexpr uint32_t kFileWrite = 0x02;      // one writer per file; implied by create
inline constexpr uint32_t kFileShare = 0x04;      // accepted: readers always share
inline constexpr uint32_t kFileCreateNew = 0x08;  // create only: an existing file is an error
inline constexpr uint32_t kFileTruncate = 0x10;   // create only: an existing file loses its frames

// Bits 24 to 31 of a file token name the stream kind; the other bits are an unguessable handle.
inline constexpr uint32_t kTokenKindVideo = 1;
inline constexpr uint32_t kTokenKindAudio = 2;
inline constexpr uint32_t kTokenKindTimecode = 7;
inline constexpr uint32_t kTokenKindData = 8;
inline constexpr uint32_t kTokenKindMarker = 24;
inline constexpr uint32_t TokenKind(uint64_t token) {
    return static_cast<uint32_t>(token >> 24) & 0xFFu;
}

// A special token's frames are 24-byte descriptions inside the stream table; they carry no data
// buffers.
inline constexpr bool IsSpecialToken(uint64_t token) {
    const uint32_t kind = TokenKind(token);
    return kind == kTokenKindTimecode || kind == kTokenKindData || kind == kTokenKindMarker;
}

// An entry's stream flags. Reads: bit 31, the client wants status and length of the frame, no data.
// Writes: bit 0, the frame is a key frame (kFrameFlagKey). Others are ignored.
inline constexpr uint32_t kStreamFlagNoData = 0x80000000u;
inline constexpr uint32_t kStreamFlagKeyFrame = 0x1;

// CMD_STRIPE_TIMECODE flags: count in drop-frame (as does a start address with its drop-frame bit
// set).
inline constexpr uint32_t kStripeDropFrame = 0x1;

// Results of the media library that have no system error of their own (severity error, interface
// facility).
inline constexpr auto kErrorFrameHole = static_cast<int32_t>(0x80040201u);    // never written
inline constexpr auto kErrorFrameErased = static_cast<int32_t>(0x80040202u);  // CMD_ERASE_SEGMENT

// One data buffer of a frame.
struct ZemIoBuffer {
    void* data;
    uint64_t length_bytes;
};

inline constexpr int kMaxStreamEntries = 22;   // entries of one frame I/O
inline constexpr int kMaxBuffersPerEntry = 6;  // buffers of one entry

// One elementary stream of a frame I/O. A frame that is read arrives in one buffer; the last buffer
// slot is the library's own until ReadFrameComplete. `special` aliases the words from bufferCount
// on for special tokens.
struct ElemStrmEntry {
    int32_t status;  // HRESULT of this stream, set by the library
    uint64_t token;
    uint32_t position;
    uint32_t streamFlags;
    union {
        struct {
            int32_t bufferCount;
            ZemIoBuffer buffers[kMaxBuffersPerEntry];
        };
        uint8_t special[24];
    };
    uint64_t userData64;  // copied between request and reply, never interpreted
    uint32_t userData32;
};
static_assert(sizeof(ElemStrmEntry) == 144 && offsetof(ElemStrmEntry, token) == 8);
static_assert(offsetof(ElemStrmEntry, position) == 16 &&
              offsetof(ElemStrmEntry, streamFlags) == 20);
static_assert(offsetof(ElemStrmEntry, bufferCount) == 24 && offsetof(ElemStrmEntry, buffers) == 32);
static_assert(offsetof(ElemStrmEntry, special) == 24);
static_assert(offsetof(ElemStrmEntry, userData64) == 128 &&
              offsetof(ElemStrmEntry, userData32) == 136);

// The stream list of one frame I/O.
struct ZemElemStrmIoData {
    uint32_t entryCount;
    ElemStrmEntry* entries;
};
static_assert(sizeof(ZemElemStrmIoData) == 16);

// Descriptor of one frame I/O, owned by the caller and held by the library from ReadFrame or
// WriteFrame until it calls the completion routine. The library never keeps a pointer to it after
// that call began: the routine may free it.
struct ZemIoDesc {
    uint64_t stamp;  // performance counter when the descriptor was made; 0 in the server's pool
    int32_t status;  // HRESULT of the whole I/O, set by the library before it completes
    uint64_t reserved;
    void (*completionRoutine)(void* context);
    void* completionContext;
    uint32_t requestWord;  // the client's word, not interpreted
    ZemElemStrmIoData* streamData;
    int32_t inUse;  // 1 while the library holds the descriptor
};
static_assert(sizeof(ZemIoDesc) == 64 && offsetof(ZemIoDesc, status) == 8);
static_assert(offsetof(ZemIoDesc, completionRoutine) == 24 && offsetof(ZemIoDesc, inUse) == 56);

// What can go wrong between a client and the server, as one exception type. The kind tells a caller
// (and the program's exit code) who has to act: the user, the network, the server's log, or this
// machine's disk. No state; any thread.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace zem {

enum class ErrorKind {
    kRefused,      // the server, or the media library behind it, said no
    kUsage,        // an argument that no server could accept
    kUnreachable,  // no connection, or it broke before an answer came
    kBadReply,     // an answer that does not follow the protocol
    kLocalFile,    // a file of this machine cannot be read or written
    kInterrupted,  // the user asked to stop
};

class CZemError : public std::runtime_error {
public:
    CZemError(ErrorKind kind, const std::string& message, int32_t hr = 0,
              const char* reason = nullptr)
        : std::runtime_error(message), m_kind(kind), m_hr(hr), m_reason(reason) {}

    ErrorKind Kind() const { return m_kind; }
    int32_t Hr() const { return m_hr; }  // 0 when the error carries none
    // A word for programs, of kReason…; null when it is not known.
    const char* Reason() const { return m_reason; }

private:
    ErrorKind m_kind;
    int32_t m_hr;
    const char* m_reason;
};

inline constexpr const char* kReasonNoFile = "no_such_file";
inline constexpr const char* kReasonNoFolder = "no_such_folder";
inline constexpr const char* kReasonNoStream = "no_such_stream";
inline constexpr const char* kReasonNoFrame = "no_such_frame";
inline constexpr const char* kReasonNoTimecode = "no_such_timecode";
inline constexpr const char* kReasonFolder = "is_folder";
inline constexpr const char* kReasonExists = "exists";
inline constexpr const char* kReasonBadName = "bad_name";
inline constexpr const char* kReasonEmpty = "empty";
inline constexpr const char* kReasonReadOnly = "read_only";
inline constexpr const char* kReasonInUse = "in_use";
inline constexpr const char* kReasonFull = "volume_full";
inline constexpr const char* kReasonOtherServer = "not_a_media_server";
inline constexpr const char* kReasonNotServed = "not_served";
inline constexpr const char* kReasonNotJoined = "not_joined";

// The results that a client meets. The first group is the system's own numbering, the last two are
// the media library's.
inline constexpr int32_t kHrNotImplemented = static_cast<int32_t>(0x80004001u);
inline constexpr int32_t kHrFail = static_cast<int32_t>(0x80004005u);
inline constexpr int32_t kHrUnexpected = static_cast<int32_t>(0x8000FFFFu);
inline constexpr int32_t kHrAccessDenied = static_cast<int32_t>(0x80070005u);
inline constexpr int32_t kHrInvalidArg = static_cast<int32_t>(0x80070057u);
inline constexpr int32_t kHrEndOfMedia = static_cast<int32_t>(0x8007044Cu);
inline constexpr int32_t kHrNoResources = static_cast<int32_t>(0x800705AAu);

// "0x8007044c (end of media: there is no frame at this position)"; numbers without a text of ours
// give the number alone.
std::string HresultText(int32_t hr);

}  // namespace zem

// From the names that clients send to paths below the volume root. Pure functions, any
// thread. What the file system itself could still do to leave the root (links, mounts made
// meanwhile) is the volume's to prevent.
#pragma once

#include "platform/platform.h"

#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

inline constexpr size_t kNameRoom = 260;  // characters, NUL included

// `root` is the volume root as configured, or empty. `path` receives a relative UTF-8 path with `/`
// between its components, empty for the root itself.
// E_INVALIDARG: null. ERROR_FILENAME_EXCED_RANGE: no NUL within kNameRoom, a component over 255
// bytes. ERROR_INVALID_NAME: ill-formed UTF-16, control characters, any of *?"<>|, a component that
// ends in a dot or blank. E_ACCESSDENIED: absolute but not below the root, a `..` component, a
// colon (drives, streams), a device name such as NUL or COM1, also with an extension.
HRESULT ParseName(const WCHAR* name, const std::string& root, std::string& path);

// The same, and E_INVALIDARG for the root itself.
HRESULT ParseFileName(const WCHAR* name, const std::string& root, std::string& path);

// A stream's name within its file: `v0`, `a1`, `d0`, `tc` (timecode), `mk` (markers).
enum class StreamKind { kFirst, kVideo, kAudio, kData, kTimecode, kMarkers };
struct StreamName {
    StreamKind kind = StreamKind::kFirst;
    uint32_t index = 0;
};
// E_INVALIDARG for anything else; null and empty are the first stream.
HRESULT ParseStreamName(const WCHAR* name, StreamName& stream);

// The folder of a path as ParseName gives it, empty for the root, and the name in it.
std::string ParentOf(const std::string& path);
std::string LeafOf(const std::string& path);

// Strict UTF-8: false for unpaired surrogates.
bool ToStrictUtf8(WStringView text, std::string& utf8);

}  // namespace zemstore

#pragma GCC visibility pop

// The attributes of a channel that clients may set, by name. Any thread.
#pragma once

#include "mediaio/store/channelcore.h"

namespace zemstore {

// frameRate: file, 23.976, 24, 25, 29.97, 30, 50, 59.94 or 60: the rate in which positions of frame
//     reads count; `file` (the default) is each file's own.
// readAhead: auto (the default) fetches 4 MiB ahead of a reader that takes one frame after the
//     other; 0 nothing; 1 to 64 so many times a frame's size behind every frame that is read.
// E_INVALIDARG for any other name or value; `config` is then as it was.
HRESULT SetAttribute(WStringView name, WStringView value, ChannelConfig& config);

// The document's root is <channelConfig>; its XML attributes and its child elements (<name>value
// </name>) are attributes of the channel, each at most once. All or none of them are applied.
HRESULT SetAttributes(const VARIANT& document, ChannelConfig& config);

}  // namespace zemstore

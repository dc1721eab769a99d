// channelconfig.h: the attributes of a channel that clients may set, by name. Any thread.
#pragma once

#include "mediaio/store/channelcore.h"

namespace zemstore {

// frameRate: file, 23.976, 24, 25, 29.97, 30, 50, 59.94 or 60: the rate in which positions of frame
//     reads count; `file` (the default) is each file's own.
// readAhead: 0 (the default) to 64: frames that are fetched from the device ahead of a reader,
//     beyond what the system does by itself.
// E_INVALIDARG for any other name or value; `config` is then as it was.
HRESULT SetAttribute(WStringView name, WStringView value, ChannelConfig& config);

// The document's root is <channelConfig>; its XML attributes and its child elements (<name>value
// </name>) are attributes of the channel, each at most once. All or none of them are applied.
HRESULT SetAttributes(const VARIANT& document, ChannelConfig& config);

}  // namespace zemstore

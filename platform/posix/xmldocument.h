// The one class that CoCreateInstance knows. Internal to the layer.
#pragma once

#include "platform/posix/xmldom.h"

namespace posix {

HRESULT CreateXmlDocument(REFIID iid, void** object);

// Whether the text is XML that the document accepts: well-formed as far as tags, attributes,
// entities and characters go, one root, no DTD, bounded depth and number of nodes. What is left to
// the parser are the names' characters. Pure.
bool IsAcceptableXml(const WCHAR* text, size_t length);

}  // namespace posix

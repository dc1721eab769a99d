// The identifier of the XML document class, which not every header of the system has.
#pragma once

// REQUIRES: included by platform.h, which brings CLSID.

inline constexpr CLSID CLSID_FreeThreadedDOMDocument60 = {
    0x88D96A06, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}};

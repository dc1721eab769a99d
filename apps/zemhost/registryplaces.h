// Where the settings that zemhost itself looks at stand, under HKEY_LOCAL_MACHINE.
#pragma once

#include "platform/platform.h"

struct RegistryPlace {
    const WCHAR* key;
    const WCHAR* value;
};

inline constexpr RegistryPlace kPortPlace = {TEXT("Software\\Quorvane Group\\ZEM"),
                                             TEXT("HttpPort")};
inline constexpr RegistryPlace kVolumePlace = {TEXT("Software\\Quorvane Group\\RUD\\vfs"),
                                               TEXT("0")};
inline constexpr RegistryPlace kListenPlace = {
    TEXT("System\\CurrentControlSet\\Services\\HTTP\\Parameters"), TEXT("ListenOnlyList")};
inline constexpr RegistryPlace kLogFormatPlace = {TEXT("Software\\Quorvane Group\\ZEM"),
                                                  TEXT("LogFormat")};

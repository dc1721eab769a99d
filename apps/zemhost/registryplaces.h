// The values that the server reads, as what, and where they stand under HKEY_LOCAL_MACHINE.
#pragma once

#include <array>

#include "platform/platform.h"

enum class RegistryKind { kNumber, kText, kTexts };

struct RegistryPlace {
    const WCHAR* key;
    const WCHAR* value;
    RegistryKind kind;
    const char* example;  // as a text; several texts with commas between them
    // Without it the server would be elsewhere or open to others: zemhost does not start with a
    // value that is not read.
    bool decides = false;
};

inline constexpr RegistryPlace kPortPlace = {TEXT("Software\\Quorvane Group\\ZEM"),
                                             TEXT("HttpPort"), RegistryKind::kNumber, "8080", true};
inline constexpr RegistryPlace kVolumePlace = {TEXT("Software\\Quorvane Group\\RUD\\vfs"),
                                               TEXT("0"), RegistryKind::kText, "DIRECTORY", true};
inline constexpr RegistryPlace kListenPlace = {
    TEXT("System\\CurrentControlSet\\Services\\HTTP\\Parameters"), TEXT("ListenOnlyList"),
    RegistryKind::kTexts, "127.0.0.1", true};
inline constexpr RegistryPlace kLogFormatPlace = {
    TEXT("Software\\Quorvane Group\\ZEM"), TEXT("LogFormat"), RegistryKind::kText, "text", true};

// All of them but the content types, of which there is one for each file name extension.
inline constexpr std::array kRegistryPlaces = {
    kPortPlace,
    kVolumePlace,
    kListenPlace,
    kLogFormatPlace,
    RegistryPlace{TEXT("Software\\Quorvane Group\\ZEM"), TEXT("HttpFileServer"),
                  RegistryKind::kNumber, "0"},
    RegistryPlace{TEXT("Software\\Quorvane Group\\ZEM"), TEXT("ReclaimFrameBlocks"),
                  RegistryKind::kNumber, "0"},
    RegistryPlace{TEXT("Software\\Quorvane Group\\ZEM"), TEXT("ReportBlocks"),
                  RegistryKind::kNumber, "0"},
    RegistryPlace{TEXT("Software\\Quorvane Group\\ZEM"), TEXT("RsDbg"), RegistryKind::kNumber, "0"},
    RegistryPlace{TEXT("Software\\WOW6432Node\\Quorvane Group\\ZEM"), TEXT("RsDbg"),
                  RegistryKind::kNumber, "0"},
    RegistryPlace{TEXT("Software\\Quorvane Group"), TEXT("version"), RegistryKind::kText,
                  "VERSION"},
    RegistryPlace{TEXT("System\\CurrentControlSet\\Services\\HTTP\\Parameters"),
                  TEXT("MaxRequestBytes"), RegistryKind::kNumber, "1024"},
};

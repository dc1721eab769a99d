// See widetext.h.
#include "apps/zemhost/widetext.h"

WString WidenText(const std::string& text) {
    WString wide(text.size(), 0);
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                           wide.data(), static_cast<int>(wide.size()));
    wide.resize(static_cast<size_t>(length));
    return wide;
}

std::string NarrowText(const WString& text) {
    std::string narrow(text.size() * 3, 0);
    const int length =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(),
                            static_cast<int>(narrow.size()), nullptr, nullptr);
    narrow.resize(static_cast<size_t>(length));
    return narrow;
}

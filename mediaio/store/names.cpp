// Client names to paths. The rules are the same on every system, so that what one server stores
// another can serve.
#include "mediaio/store/names.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace zemstore {
namespace {

constexpr size_t kMostPart_bytes = 255;

bool IsDeviceName(std::string_view part) {
    WCHAR wide[kMostPart_bytes];
    const int length = MultiByteToWideChar(CP_UTF8, 0, part.data(), static_cast<int>(part.size()),
                                           wide, static_cast<int>(std::size(wide)));
    return windowsnames::IsDevice(WStringView(wide, static_cast<size_t>(length)));
}

HRESULT CheckPart(std::string_view part) {
    if (part == "..") return E_ACCESSDENIED;
    if (part.size() > kMostPart_bytes) return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
    for (const char c : part) {
        if (c == ':') return E_ACCESSDENIED;
        if (static_cast<unsigned char>(c) < 0x20 ||
            std::string_view("*?\"<>|").find(c) != std::string_view::npos) {
            return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
        }
    }
    if (part.back() == '.' || part.back() == ' ') return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
    return IsDeviceName(part) ? E_ACCESSDENIED : S_OK;
}

std::string WithSlashes(std::string text) {
    std::replace(text.begin(), text.end(), '\\', '/');
    return text;
}

bool HasDrive(std::string_view text) {
    return text.size() >= 2 && text[1] == ':' &&
           ((text[0] >= 'A' && text[0] <= 'Z') || (text[0] >= 'a' && text[0] <= 'z'));
}

}  // namespace

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string LeafOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);  // from 0 on without a slash
}

bool ToStrictUtf8(WStringView text, std::string& utf8) {
    utf8.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        auto code = static_cast<uint32_t>(text[i]);
        if (code >= 0xD800 && code <= 0xDFFF) {
            const bool pair = code < 0xDC00 && i + 1 < text.size() &&
                              static_cast<uint32_t>(text[i + 1]) >= 0xDC00 &&
                              static_cast<uint32_t>(text[i + 1]) <= 0xDFFF;
            if (!pair) return false;
            code = 0x10000 + ((code - 0xD800) << 10) + (static_cast<uint32_t>(text[++i]) - 0xDC00);
        }
        if (code < 0x80) {
            utf8 += static_cast<char>(code);
            continue;
        }
        const int more = code < 0x800 ? 1 : (code < 0x10000 ? 2 : 3);
        static constexpr uint32_t kLead[] = {0, 0xC0, 0xE0, 0xF0};
        utf8 += static_cast<char>(kLead[more] | (code >> (6 * more)));
        for (int k = more - 1; k >= 0; --k)
            utf8 += static_cast<char>(0x80 | ((code >> (6 * k)) & 0x3F));
    }
    return true;
}

HRESULT ParseName(const WCHAR* name, const std::string& root, std::string& path) {
    if (name == nullptr) return E_INVALIDARG;
    size_t length = 0;
    while (length < kNameRoom && name[length] != 0)
        ++length;
    if (length == kNameRoom) return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
    std::string text;
    if (!ToStrictUtf8(WStringView(name, length), text))
        return HRESULT_FROM_WIN32(ERROR_INVALID_NAME);
    text = WithSlashes(std::move(text));

    if (text.starts_with('/') || HasDrive(text)) {
        std::string prefix = WithSlashes(root);
        while (!prefix.empty() && prefix.back() == '/')
            prefix.pop_back();
        const bool below = !root.empty() && text.starts_with(prefix) &&
                           (text.size() == prefix.size() || text[prefix.size()] == '/');
        if (!below) return E_ACCESSDENIED;
        text.erase(0, prefix.size());
    }

    std::string result;
    for (size_t begin = 0; begin <= text.size();) {
        size_t end = text.find('/', begin);
        if (end == std::string::npos) end = text.size();
        const std::string_view part = std::string_view(text).substr(begin, end - begin);
        begin = end + 1;
        if (part.empty() || part == ".") continue;
        const HRESULT hr = CheckPart(part);
        if (FAILED(hr)) return hr;
        if (!result.empty()) result += '/';
        result += part;
    }
    path = std::move(result);
    return S_OK;
}

HRESULT ParseFileName(const WCHAR* name, const std::string& root, std::string& path) {
    std::string result;
    const HRESULT hr = ParseName(name, root, result);
    if (FAILED(hr)) return hr;
    if (result.empty()) return E_INVALIDARG;
    path = std::move(result);
    return S_OK;
}

HRESULT ParseStreamName(const WCHAR* name, StreamName& stream) {
    stream = {};
    if (name == nullptr || name[0] == 0) return S_OK;
    size_t length = 0;
    while (length < 8 && name[length] != 0)
        ++length;
    if (length == 8) return E_INVALIDARG;
    const WStringView text(name, length);
    if (text == TEXT("tc") || text == TEXT("mk")) {
        stream.kind = text == TEXT("tc") ? StreamKind::kTimecode : StreamKind::kMarkers;
        return S_OK;
    }
    const WCHAR letter = text[0];
    if (letter != u'v' && letter != u'a' && letter != u'd') return E_INVALIDARG;
    stream.kind = letter == u'v' ? StreamKind::kVideo
                                 : (letter == u'a' ? StreamKind::kAudio : StreamKind::kData);
    if (text.size() < 2 || text.size() > 4) return E_INVALIDARG;
    for (const WCHAR c : text.substr(1)) {
        if (c < u'0' || c > u'9') return E_INVALIDARG;
        stream.index = stream.index * 10 + static_cast<uint32_t>(c - u'0');
    }
    return S_OK;
}

}  // namespace zemstore

// BSTR, VARIANT, apartments and _com_error. Any thread; apartment counts are per thread.
#include "platform/posix/com.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "platform/posix/text.h"
#include "platform/posix/xmldocument.h"

const IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_IDispatch = {0x00020400, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

namespace {

// In front of a BSTR's first character. Eight bytes keep the text aligned; the length takes the
// last four.
struct CBstrHeader {
    uint32_t unused;
    uint32_t bytes;
};
static_assert(sizeof(CBstrHeader) == 8);

CBstrHeader* HeaderOf(BSTR text) {
    return reinterpret_cast<CBstrHeader*>(text) - 1;
}

constexpr DWORD kModelMask = COINIT_APARTMENTTHREADED;
constexpr DWORD kKnownModels =
    COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE | COINIT_SPEED_OVER_MEMORY;

struct CApartment {
    uint32_t count = 0;
    DWORD model = 0;
};
thread_local CApartment t_apartment;
// Threads in the multithreaded apartment; while there is one, every thread may create objects.
std::atomic<int32_t> g_multithreaded{0};

bool IsKnown(VARTYPE type) {
    switch (type) {
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R8:
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_ERROR:
        case VT_BOOL:
        case VT_UNKNOWN:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_INT:
        case VT_UINT:
            return true;
        default:
            return false;
    }
}

constexpr HRESULT kFirstDispatchError = static_cast<HRESULT>(0x80040200);
constexpr HRESULT kLastDispatchError = static_cast<HRESULT>(0x8004FFFF);
constexpr size_t kOwnMessageSize = 32;

}  // namespace

extern "C" {

BSTR SysAllocString(const OLECHAR* text) {
    return text ? SysAllocStringLen(text, static_cast<UINT>(wcslen(text))) : nullptr;
}

BSTR SysAllocStringLen(const OLECHAR* text, UINT length) {
    if (length > (UINT32_MAX - 16) / sizeof(WCHAR)) return nullptr;
    const auto bytes = static_cast<uint32_t>(length * sizeof(WCHAR));
    auto* header =
        static_cast<CBstrHeader*>(std::malloc(sizeof(CBstrHeader) + bytes + sizeof(WCHAR)));
    if (!header) return nullptr;
    header->unused = 0;
    header->bytes = bytes;
    auto* result = reinterpret_cast<BSTR>(header + 1);
    if (text) std::memcpy(result, text, bytes);
    result[length] = 0;
    return result;
}

void SysFreeString(BSTR text) {
    if (text) std::free(HeaderOf(text));
}

UINT SysStringLen(BSTR text) {
    return SysStringByteLen(text) / static_cast<UINT>(sizeof(WCHAR));
}

UINT SysStringByteLen(BSTR text) {
    return text ? HeaderOf(text)->bytes : 0;
}

void VariantInit(VARIANT* variant) {
    *variant = {};
}

HRESULT VariantClear(VARIANT* variant) {
    if (!variant) return E_INVALIDARG;
    if (!IsKnown(variant->vt)) return DISP_E_BADVARTYPE;
    if (variant->vt == VT_BSTR) SysFreeString(variant->bstrVal);
    if ((variant->vt == VT_DISPATCH || variant->vt == VT_UNKNOWN) && variant->punkVal)
        variant->punkVal->Release();
    *variant = {};
    return S_OK;
}

HRESULT CoInitializeEx(LPVOID reserved, DWORD model) {
    if (reserved || (model & ~kKnownModels) != 0) return E_INVALIDARG;
    CApartment& apartment = t_apartment;
    if (apartment.count > 0) {
        if (apartment.model != (model & kModelMask)) return RPC_E_CHANGED_MODE;
        ++apartment.count;
        return S_FALSE;
    }
    apartment = {1, model & kModelMask};
    if (apartment.model == COINIT_MULTITHREADED) g_multithreaded.fetch_add(1);
    return S_OK;
}

void CoUninitialize() {
    CApartment& apartment = t_apartment;
    if (apartment.count == 0 || --apartment.count > 0) return;
    if (apartment.model == COINIT_MULTITHREADED) g_multithreaded.fetch_sub(1);
}

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid,
                         LPVOID* object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (t_apartment.count == 0 && g_multithreaded.load() == 0) return CO_E_NOTINITIALIZED;
    if (!(clsid == CLSID_FreeThreadedDOMDocument60) || (context & CLSCTX_INPROC_SERVER) == 0)
        return REGDB_E_CLASSNOTREG;
    if (outer) return CLASS_E_NOAGGREGATION;
    return posix::CreateXmlDocument(iid, object);
}

HLOCAL LocalFree(HLOCAL memory) {
    std::free(memory);
    return nullptr;
}

}  // extern "C"

_com_error::_com_error(HRESULT error, IErrorInfo*, bool) noexcept : m_error(error) {}

_com_error::_com_error(const _com_error& other) noexcept : m_error(other.m_error) {}

_com_error& _com_error::operator=(const _com_error& other) noexcept {
    if (this != &other) {
        LocalFree(m_message);
        m_message = nullptr;
        m_error = other.m_error;
    }
    return *this;
}

_com_error::~_com_error() noexcept {
    LocalFree(m_message);
}

const WCHAR* _com_error::ErrorMessage() const noexcept {
    if (m_message) return m_message;
    FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(m_error), 0, reinterpret_cast<LPWSTR>(&m_message), 0, nullptr);
    if (m_message) {
        size_t length = wcslen(m_message);
        if (length > 0 && m_message[length - 1] == u'\n') m_message[--length] = 0;
        if (length > 0 && m_message[length - 1] == u'\r') m_message[--length] = 0;
        return m_message;
    }
    m_message = static_cast<WCHAR*>(std::malloc(kOwnMessageSize * sizeof(WCHAR)));
    if (!m_message) return TEXT("");
    if (m_error >= kFirstDispatchError && m_error <= kLastDispatchError) {
        swprintf_s(m_message, kOwnMessageSize, TEXT("IDispatch error #%d"),
                   m_error - kFirstDispatchError);
    } else {
        swprintf_s(m_message, kOwnMessageSize, TEXT("Unknown error 0x%0lX"), m_error);
    }
    return m_message;
}

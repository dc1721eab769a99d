// The small part of COM that the tree touches: BSTR, VARIANT, apartments, _com_error with the
// system's message texts, and one creatable class, the XML document (xmldom.h). Same source as on
// Windows, not the same binary layout of tables. Differences: no marshalling, no proxies, no type
// libraries; IDispatch objects of this layer answer E_NOTIMPL.
#pragma once

#include <cstdarg>

#include "platform/posix/errors.h"

using BSTR = WCHAR*;
using VARTYPE = USHORT;
using VARIANT_BOOL = SHORT;
using DISPID = LONG;
using LCID = DWORD;
using OLECHAR = WCHAR;
using LPOLESTR = WCHAR*;
using HLOCAL = void*;

#define VARIANT_TRUE (static_cast<VARIANT_BOOL>(-1))
#define VARIANT_FALSE (static_cast<VARIANT_BOOL>(0))

enum VARENUM : USHORT {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R8 = 5,
    VT_BSTR = 8,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_UNKNOWN = 13,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
};

enum COINIT : DWORD {
    COINIT_MULTITHREADED = 0x0,
    COINIT_APARTMENTTHREADED = 0x2,
    COINIT_DISABLE_OLE1DDE = 0x4,
    COINIT_SPEED_OVER_MEMORY = 0x8,
};

enum CLSCTX : DWORD {
    CLSCTX_INPROC_SERVER = 0x1,
    CLSCTX_INPROC_HANDLER = 0x2,
    CLSCTX_LOCAL_SERVER = 0x4,
    CLSCTX_REMOTE_SERVER = 0x10,
    CLSCTX_ALL = 0x17,
};

#define FORMAT_MESSAGE_ALLOCATE_BUFFER 0x100u
#define FORMAT_MESSAGE_IGNORE_INSERTS 0x200u
#define FORMAT_MESSAGE_FROM_SYSTEM 0x1000u

#pragma GCC visibility push(default)

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID iid, void** object) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};

struct ITypeInfo;
struct DISPPARAMS;
struct EXCEPINFO;
struct IErrorInfo;
struct VARIANT;

struct IDispatch : IUnknown {
    virtual HRESULT GetTypeInfoCount(UINT* count) = 0;
    virtual HRESULT GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) = 0;
    virtual HRESULT GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale,
                                  DISPID* ids) = 0;
    virtual HRESULT Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* params,
                           VARIANT* result, EXCEPINFO* exception, UINT* bad_argument) = 0;

protected:
    ~IDispatch() = default;
};

struct VARIANT {
    VARTYPE vt;
    WORD wReserved1;
    WORD wReserved2;
    WORD wReserved3;
    union {
        LONGLONG llVal;
        ULONGLONG ullVal;
        LONG lVal;
        ULONG ulVal;
        INT intVal;
        UINT uintVal;
        SHORT iVal;
        double dblVal;
        VARIANT_BOOL boolVal;
        HRESULT scode;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        PVOID byref;
        struct {
            PVOID pvRecord;
            PVOID pRecInfo;
        };
    };
};
static_assert(sizeof(VARIANT) == 24 && offsetof(VARIANT, bstrVal) == 8);

extern const IID IID_IUnknown;
extern const IID IID_IDispatch;

extern "C" {

// A BSTR carries its length in the four bytes before its first character and a NUL behind the last.
// Null is the empty string. Allocation fails with null. SysAllocStringLen takes null for
// uninitialised characters.
BSTR SysAllocString(const OLECHAR* text);
BSTR SysAllocStringLen(const OLECHAR* text, UINT length);
void SysFreeString(BSTR text);
UINT SysStringLen(BSTR text);
UINT SysStringByteLen(BSTR text);

// Clear frees a BSTR or releases an interface and leaves VT_EMPTY. DISP_E_BADVARTYPE, changing
// nothing, for a type not in VARENUM.
void VariantInit(VARIANT* variant);
HRESULT VariantClear(VARIANT* variant);

// Counted per thread: S_OK the first time, S_FALSE when already in that model, RPC_E_CHANGED_MODE
// (not counted) in the other one, E_INVALIDARG for unknown flags.
HRESULT CoInitializeEx(LPVOID reserved, DWORD model);
void CoUninitialize();

// Creates the XML document for CLSID_FreeThreadedDOMDocument60 as IUnknown, IDispatch, IXMLDOMNode
// or IXMLDOMDocument. REGDB_E_CLASSNOTREG (any other class, or no in-process context),
// CLASS_E_NOAGGREGATION, E_NOINTERFACE, E_POINTER, CO_E_NOTINITIALIZED (this thread is in no
// apartment and the process has no multithreaded one). `*object` is null on failure.
HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid,
                         LPVOID* object);

// The system's text for a Win32 error or HRESULT, ending in "\r\n"; its length without NUL, or 0:
// the flags must be FROM_SYSTEM | IGNORE_INSERTS, with or without ALLOCATE_BUFFER (then `buffer`
// points to the LPWSTR that receives the text, to be freed with LocalFree), else
// ERROR_INVALID_PARAMETER; ERROR_MR_MID_NOT_FOUND; ERROR_INSUFFICIENT_BUFFER. Language 0 or 0x400.
DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD id, DWORD language, LPWSTR buffer,
                     DWORD size, va_list* args);
// Frees what FormatMessageW allocated; null.
HLOCAL LocalFree(HLOCAL memory);
}

// An HRESULT as an exception. The message is made at the first ErrorMessage and lives as long as
// the object.
class _com_error {
public:
    explicit _com_error(HRESULT error, IErrorInfo* info = nullptr, bool add_ref = false) noexcept;
    _com_error(const _com_error& other) noexcept;
    _com_error& operator=(const _com_error& other) noexcept;
    virtual ~_com_error() noexcept;

    HRESULT Error() const noexcept { return m_error; }
    // The system's text without its line end; "IDispatch error #%d" for 0x80040200 to 0x8004FFFF,
    // else "Unknown error 0x%0lX". The empty string when there is no memory.
    const WCHAR* ErrorMessage() const noexcept;

private:
    HRESULT m_error;
    mutable WCHAR* m_message = nullptr;
};

#pragma GCC visibility pop

#include "platform/posix/xmldom.h"

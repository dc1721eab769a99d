// BSTR, VARIANT, apartments, _com_error and the XML document, in Windows terms.
#include <gtest/gtest.h>

#include <thread>

#include "platform/platform.h"

namespace {

TEST(Bstr, CarriesItsLength) {
    const BSTR text = SysAllocStringLen(TEXT("a\0b"), 3);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(SysStringLen(text), 3u);
    EXPECT_EQ(SysStringByteLen(text), 6u);
    EXPECT_EQ(text[2], u'b');
    EXPECT_EQ(text[3], 0);
    SysFreeString(text);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    SysFreeString(nullptr);
    const BSTR empty = SysAllocString(TEXT(""));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(SysStringLen(empty), 0u);
    SysFreeString(empty);
    const BSTR open = SysAllocStringLen(nullptr, 4);
    EXPECT_EQ(open[4], 0);
    SysFreeString(open);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"  // of the system's own interfaces
struct CCounted final : IUnknown {
    ULONG refs = 1;
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
};
#pragma GCC diagnostic pop

TEST(Variant, ClearFreesWhatItHolds) {
    VARIANT a;
    VariantInit(&a);
    EXPECT_EQ(a.vt, VT_EMPTY);
    a.vt = VT_BSTR;
    a.bstrVal = SysAllocString(TEXT("text"));
    EXPECT_EQ(VariantClear(&a), S_OK);
    EXPECT_EQ(a.vt, VT_EMPTY);

    CCounted object;
    a.vt = VT_UNKNOWN;
    a.punkVal = &object;
    object.AddRef();
    EXPECT_EQ(object.refs, 2u);
    EXPECT_EQ(VariantClear(&a), S_OK);
    EXPECT_EQ(object.refs, 1u);

    a.vt = 0x7FFF;
    EXPECT_EQ(VariantClear(&a), DISP_E_BADVARTYPE);
}

TEST(Apartment, IsCountedPerThreadAndHasOneModel) {
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
    std::thread([] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
        CoUninitialize();
    }).join();
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, 0x1000), E_INVALIDARG);
}

TEST(ComError, HasTheSystemsMessageWithoutItsLineEnd) {
    for (const HRESULT known :
         {E_ACCESSDENIED, E_OUTOFMEMORY, E_FAIL, E_UNEXPECTED, HRESULT_FROM_WIN32(ERROR_CRC)}) {
        WCHAR text[256];
        const DWORD length =
            FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(known), 0, text, 256, nullptr);
        ASSERT_GT(length, 2u);
        EXPECT_EQ(WString(text).substr(length - 2), TEXT("\r\n"));
        const _com_error error(known);
        EXPECT_EQ(error.Error(), known);
        EXPECT_EQ(WString(error.ErrorMessage()), WString(text, length - 2));
        EXPECT_EQ(error.ErrorMessage(), error.ErrorMessage());
    }
}

TEST(ComError, NamesNumbersWithoutAMessage) {
    EXPECT_EQ(WString(_com_error(static_cast<HRESULT>(0x80040201)).ErrorMessage()),
              TEXT("IDispatch error #1"));
    EXPECT_EQ(WString(_com_error(static_cast<HRESULT>(0x8004FFFF)).ErrorMessage()),
              TEXT("IDispatch error #65023"));
    EXPECT_EQ(WString(_com_error(static_cast<HRESULT>(0x80050000)).ErrorMessage()),
              TEXT("Unknown error 0x80050000"));
    EXPECT_EQ(WString(_com_error(static_cast<HRESULT>(0x8ABCDEF0)).ErrorMessage()),
              TEXT("Unknown error 0x8ABCDEF0"));
}

TEST(ComError, IsCopiedAndCaught) {
    const _com_error first(E_FAIL);
    first.ErrorMessage();
    _com_error second(first);
    _com_error third(E_INVALIDARG);
    third.ErrorMessage();
    third = second;
    EXPECT_EQ(third.Error(), E_FAIL);
    EXPECT_EQ(WString(third.ErrorMessage()), WString(first.ErrorMessage()));
    try {
        throw _com_error(E_HANDLE);
    } catch (_com_error& caught) {
        EXPECT_EQ(caught.Error(), E_HANDLE);
    }
}

TEST(FormatMessage, AllocatesOrFillsOrRefuses) {
    constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    LPWSTR allocated = nullptr;
    const DWORD length =
        FormatMessageW(kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, ERROR_ACCESS_DENIED, 0,
                       reinterpret_cast<LPWSTR>(&allocated), 0, nullptr);
    ASSERT_GT(length, 0u);
    EXPECT_EQ(wcslen(allocated), length);
    WCHAR text[256];
    EXPECT_EQ(FormatMessageW(kFlags, nullptr, ERROR_ACCESS_DENIED, 0, text, length + 1, nullptr),
              length);
    EXPECT_EQ(WString(text), allocated);
    EXPECT_EQ(FormatMessageW(kFlags, nullptr, ERROR_ACCESS_DENIED, 0, text, length, nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(LocalFree(allocated), nullptr);
    EXPECT_EQ(FormatMessageW(kFlags, nullptr, 0x0BADC0DE, 0, text, 256, nullptr), 0u);
    EXPECT_EQ(GetLastError(), ERROR_MR_MID_NOT_FOUND);
}

class XmlDocument : public testing::Test {
protected:
    XmlDocument() {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        void* object = nullptr;
        EXPECT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL,
                                   IID_IXMLDOMDocument, &object),
                  S_OK);
        m_document = static_cast<IXMLDOMDocument*>(object);
    }
    ~XmlDocument() override {
        EXPECT_EQ(m_document->Release(), 0u);
        CoUninitialize();
    }

    HRESULT Load(const WString& text) {
        const BSTR xml = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        VARIANT_BOOL loaded = 42;
        const HRESULT result = m_document->loadXML(xml, &loaded);
        SysFreeString(xml);
        EXPECT_EQ(loaded, result == S_OK ? VARIANT_TRUE : VARIANT_FALSE);
        return result;
    }

    static WString Taken(BSTR text) {
        const WString result(text, SysStringLen(text));
        SysFreeString(text);
        return result;
    }
    static WString NameOf(IXMLDOMNode* node) {
        BSTR text = nullptr;
        EXPECT_EQ(node->get_nodeName(&text), S_OK);
        return Taken(text);
    }
    static WString TextOf(IXMLDOMNode* node) {
        BSTR text = nullptr;
        EXPECT_EQ(node->get_text(&text), S_OK);
        return Taken(text);
    }

    IXMLDOMDocument* m_document = nullptr;
};

TEST_F(XmlDocument, IsWalkedByTheNamesOfWindows) {
    ASSERT_EQ(Load(TEXT("<?xml version=\"1.0\" encoding=\"utf-16\"?>\r\n<!-- x --><config "
                        "rate=\"25\" name='\u20AC &amp; &#65;'>"
                        "\r\n  <item> one </item><item "
                        "id=\"2\"><![CDATA[<two>]]></item>&lt;tail\r\n</config>")),
              S_OK);
    IXMLDOMElement* root = nullptr;
    ASSERT_EQ(m_document->get_documentElement(&root), S_OK);
    EXPECT_EQ(NameOf(root), TEXT("config"));
    EXPECT_EQ(TextOf(root), TEXT("one <two><tail"));
    DOMNodeType type = NODE_INVALID;
    EXPECT_EQ(root->get_nodeType(&type), S_OK);
    EXPECT_EQ(type, NODE_ELEMENT);

    IXMLDOMNamedNodeMap* attributes = nullptr;
    ASSERT_EQ(root->get_attributes(&attributes), S_OK);
    LONG count = 0;
    EXPECT_EQ(attributes->get_length(&count), S_OK);
    EXPECT_EQ(count, 2);
    IXMLDOMNode* item = nullptr;
    ASSERT_EQ(attributes->get_item(1, &item), S_OK);
    EXPECT_EQ(NameOf(item), TEXT("name"));
    EXPECT_EQ(TextOf(item), TEXT("\u20AC & A"));
    item->Release();
    EXPECT_EQ(attributes->get_item(2, &item), S_FALSE);
    EXPECT_EQ(attributes->get_item(-1, &item), S_FALSE);
    const BSTR rate = SysAllocString(TEXT("rate"));
    ASSERT_EQ(attributes->getNamedItem(rate, &item), S_OK);
    EXPECT_EQ(TextOf(item), TEXT("25"));
    item->Release();
    attributes->Release();
    VARIANT value;
    ASSERT_EQ(root->getAttribute(rate, &value), S_OK);
    EXPECT_EQ(value.vt, VT_BSTR);
    EXPECT_EQ(WString(value.bstrVal), TEXT("25"));
    EXPECT_EQ(VariantClear(&value), S_OK);
    SysFreeString(rate);
    const BSTR missing = SysAllocString(TEXT("missing"));
    EXPECT_EQ(root->getAttribute(missing, &value), S_FALSE);
    EXPECT_EQ(value.vt, VT_NULL);
    SysFreeString(missing);

    IXMLDOMNode *first = nullptr, *second = nullptr, *third = nullptr, *none = nullptr,
                *inner = nullptr;
    ASSERT_EQ(root->get_firstChild(&first), S_OK);
    EXPECT_EQ(TextOf(first), TEXT("one"));
    ASSERT_EQ(first->get_nextSibling(&second), S_OK);
    ASSERT_EQ(second->get_firstChild(&inner), S_OK);
    EXPECT_EQ(NameOf(inner), TEXT("#cdata-section"));
    EXPECT_EQ(inner->get_attributes(&attributes), S_FALSE);
    ASSERT_EQ(second->get_nextSibling(&third), S_OK);
    EXPECT_EQ(NameOf(third), TEXT("#text"));
    EXPECT_EQ(TextOf(third), TEXT("<tail"));
    EXPECT_EQ(third->get_nextSibling(&none), S_FALSE);
    EXPECT_EQ(none, nullptr);
    ASSERT_EQ(third->get_parentNode(&none), S_OK);
    EXPECT_EQ(NameOf(none), TEXT("config"));
    for (IXMLDOMNode* node : {first, second, third, none, inner})
        EXPECT_EQ(node->Release(), 0u);

    // A node outlives the document's next load.
    EXPECT_EQ(Load(TEXT("<other/>")), S_OK);
    EXPECT_EQ(NameOf(root), TEXT("config"));
    EXPECT_EQ(root->Release(), 0u);
}

TEST_F(XmlDocument, RefusesWhatIsNotWellFormed) {
    const WCHAR* bad[] = {
        TEXT(""),
        TEXT("   "),
        TEXT("text"),
        TEXT("<a>"),
        TEXT("<a></b>"),
        TEXT("<a/><b/>"),
        TEXT("<a/>text"),
        TEXT("</a>"),
        TEXT("<a b></a>"),
        TEXT("<a b=c/>"),
        TEXT("<a b=\"1\" b=\"2\"/>"),
        TEXT("<a b=\"<\"/>"),
        TEXT("<a b=\"1\"c=\"2\"/>"),
        TEXT("<a>&unknown;</a>"),
        TEXT("<a>&amp</a>"),
        TEXT("<a>&#0;</a>"),
        TEXT("<a>&#xD800;</a>"),
        TEXT("<a>&#x110000;</a>"),
        TEXT("<a>&#;</a>"),
        TEXT("<a>]]></a>"),
        TEXT("<a>\u0001</a>"),
        TEXT("<a>\uFFFF</a>"),
        TEXT("<!DOCTYPE a><a/>"),
        TEXT("<!DOCTYPE a [<!ENTITY x \"y\">]><a>&x;</a>"),
        TEXT("<!DOCTYPE a SYSTEM \"http://example.com/a.dtd\"><a/>"),
        TEXT("<a><!-- -- --></a>"),
        TEXT("<a><!-- </a>"),
        TEXT("<a><![CDATA[x</a>"),
        TEXT("<![CDATA[x]]><a/>"),
        TEXT(" <?xml version=\"1.0\"?><a/>"),
        TEXT("<a/><?xml version=\"1.0\"?>"),
        TEXT("<a><?x</a>"),
        TEXT("< a/>"),
        TEXT("<1a/>"),
        TEXT("<a"),
        TEXT("<"),
        TEXT("<a b=\"1"),
    };
    for (const WCHAR* text : bad) {
        ASSERT_EQ(Load(TEXT("<before/>")), S_OK);
        EXPECT_EQ(Load(text), S_FALSE) << testing::PrintToString(WString(text));
        IXMLDOMElement* root = nullptr;
        EXPECT_EQ(m_document->get_documentElement(&root), S_FALSE);
        EXPECT_EQ(root, nullptr);
    }
    EXPECT_EQ(Load(WString(TEXT("<a>")) + WCHAR{0xD800} + TEXT("</a>")), S_FALSE);
    EXPECT_EQ(Load(WString(TEXT("<a>\0</a>"), 8)), S_FALSE);
    VARIANT_BOOL loaded = VARIANT_TRUE;
    EXPECT_EQ(m_document->loadXML(nullptr, &loaded), S_FALSE);
    EXPECT_EQ(loaded, VARIANT_FALSE);
    EXPECT_EQ(m_document->loadXML(nullptr, nullptr), E_INVALIDARG);
}

TEST_F(XmlDocument, AcceptsWhatIsWellFormed) {
    const WCHAR* good[] = {
        TEXT("<a/>"),
        TEXT("\uFEFF<a/>"),
        TEXT("<?xml version='1.0'?><a/>"),
        TEXT("<?style x?><a></a >\n<!-- end --><?end?>"),
        TEXT("<a b = '\"' c=\"'>'\"/>"),
        TEXT("<a>&#x1F3AC;&#9;]] ></a>"),
        TEXT("<ns:a xmlns:ns=\"urn:x\"><ns:b-c.d_1/></ns:a>"),
        TEXT("<\u00E4\u00F6>\u00FC</\u00E4\u00F6>"),
    };
    for (const WCHAR* text : good)
        EXPECT_EQ(Load(text), S_OK) << testing::PrintToString(WString(text));
}

TEST_F(XmlDocument, BoundsTheDepth) {
    const auto nested = [](int depth) {
        WString text;
        for (int i = 0; i < depth; ++i)
            text += TEXT("<a>");
        for (int i = 0; i < depth; ++i)
            text += TEXT("</a>");
        return text;
    };
    EXPECT_EQ(Load(nested(128)), S_OK);
    EXPECT_EQ(Load(nested(129)), S_FALSE);
    EXPECT_EQ(Load(nested(200000)), S_FALSE);
}

TEST_F(XmlDocument, BoundsTheNodes) {
    const auto repeated = [](const WCHAR* what, int count) {
        WString text = TEXT("<a>");
        for (int i = 0; i < count; ++i)
            text += what;
        return text + TEXT("</a>");
    };
    EXPECT_EQ(Load(repeated(TEXT("<b/>"), 65534)), S_OK);
    EXPECT_EQ(Load(repeated(TEXT("<b/>"), 65535)), S_FALSE);
    EXPECT_EQ(Load(repeated(TEXT("<b c=''/>"), 32767)), S_OK);
    EXPECT_EQ(Load(repeated(TEXT("<b c=''/>"), 32768)), S_FALSE);
    EXPECT_EQ(Load(repeated(TEXT("x<!---->"), 32768)), S_FALSE) << "a text each";
    EXPECT_EQ(Load(repeated(TEXT(" "), 1 << 20)), S_OK) << "one text";
}

TEST_F(XmlDocument, TravelsInAVariant) {
    ASSERT_EQ(Load(TEXT("<a/>")), S_OK);
    VARIANT variant;
    VariantInit(&variant);
    variant.vt = VT_DISPATCH;
    variant.pdispVal = m_document;
    m_document->AddRef();
    void* again = nullptr;
    ASSERT_EQ(variant.pdispVal->QueryInterface(IID_IXMLDOMDocument, &again), S_OK);
    EXPECT_EQ(again, m_document);
    static_cast<IXMLDOMDocument*>(again)->Release();
    EXPECT_EQ(variant.pdispVal->QueryInterface(IID_IXMLDOMElement, &again), E_NOINTERFACE);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(VariantClear(&variant), S_OK);
}

TEST(CreateInstance, RefusesTheRest) {
    void* object = &object;
    EXPECT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL, IID_IUnknown,
                               &object),
              CO_E_NOTINITIALIZED);
    EXPECT_EQ(object, nullptr);
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL, IID_IUnknown,
                               nullptr),
              E_POINTER);
    EXPECT_EQ(CoCreateInstance(IID_IUnknown, nullptr, CLSCTX_ALL, IID_IUnknown, &object),
              REGDB_E_CLASSNOTREG);
    EXPECT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL,
                               CLSID_FreeThreadedDOMDocument60, &object),
              E_NOINTERFACE);
    // A multithreaded apartment serves threads that have none of their own.
    std::thread([] {
        void* made = nullptr;
        EXPECT_EQ(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL,
                                   IID_IDispatch, &made),
                  S_OK);
        static_cast<IDispatch*>(made)->Release();
    }).join();
    CoUninitialize();
}

}  // namespace

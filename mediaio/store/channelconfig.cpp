// Channel attributes, one at a time or as a document.
#include "mediaio/store/channelconfig.h"

namespace zemstore {
namespace {

constexpr VARTYPE kByReference = 0x4000;

template <typename T>
class CRef {  // one reference to a COM object
public:
    CRef() = default;
    CRef(const CRef&) = delete;
    CRef& operator=(const CRef&) = delete;
    ~CRef() {
        if (m_object != nullptr) m_object->Release();
    }
    T** Out() { return &m_object; }
    void** OutVoid() { return reinterpret_cast<void**>(&m_object); }
    T* operator->() const { return m_object; }
    T* Get() const { return m_object; }
    void Take(T* object) {
        if (m_object != nullptr) m_object->Release();
        m_object = object;
    }

private:
    T* m_object = nullptr;
};

class CText {  // a BSTR that was given to us
public:
    CText() = default;
    CText(const CText&) = delete;
    CText& operator=(const CText&) = delete;
    ~CText() { SysFreeString(m_text); }
    BSTR* Out() { return &m_text; }
    WStringView View() const {
        return {m_text == nullptr ? TEXT("") : m_text, SysStringLen(m_text)};
    }

private:
    BSTR m_text = nullptr;
};

// What a document changes. An attribute may stand in it once: the caller holds a lock meanwhile,
// and documents may be long.
struct Update {
    ChannelConfig config;
    bool frameRateSeen = false;
    bool readAheadSeen = false;
};

HRESULT SetFromNode(IXMLDOMNode& node, Update& update) {
    CText name;
    CText value;
    if (node.get_nodeName(name.Out()) != S_OK) return E_INVALIDARG;
    bool& seen = name.View() == TEXT("frameRate") ? update.frameRateSeen : update.readAheadSeen;
    if (seen || node.get_text(value.Out()) != S_OK) return E_INVALIDARG;
    seen = true;
    return SetAttribute(name.View(), value.View(), update.config);
}

HRESULT SetFromChildren(IXMLDOMElement& root, Update& update) {
    CRef<IXMLDOMNode> child;
    HRESULT hr = root.get_firstChild(child.Out());
    while (hr == S_OK) {
        DOMNodeType type = NODE_INVALID;
        hr = child->get_nodeType(&type);
        if (FAILED(hr) || type != NODE_ELEMENT) return E_INVALIDARG;
        hr = SetFromNode(*child.Get(), update);
        if (FAILED(hr)) return hr;
        IXMLDOMNode* next = nullptr;
        hr = child->get_nextSibling(&next);
        child.Take(next);
    }
    return FAILED(hr) ? hr : S_OK;
}

HRESULT SetFromRootAttributes(IXMLDOMElement& root, Update& update) {
    CRef<IXMLDOMNamedNodeMap> map;
    if (root.get_attributes(map.Out()) != S_OK) return S_OK;
    LONG count = 0;
    if (map->get_length(&count) != S_OK) return E_INVALIDARG;
    for (LONG i = 0; i < count; ++i) {
        CRef<IXMLDOMNode> node;
        if (map->get_item(i, node.Out()) != S_OK) return E_INVALIDARG;
        const HRESULT hr = SetFromNode(*node.Get(), update);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}

}  // namespace

HRESULT SetAttribute(WStringView name, WStringView value, ChannelConfig& config) {
    if (name == TEXT("frameRate")) {
        static constexpr WStringView kRates[] = {TEXT("file"), TEXT("23.976"), TEXT("24"),
                                                 TEXT("25"),   TEXT("29.97"),  TEXT("30"),
                                                 TEXT("50"),   TEXT("59.94"),  TEXT("60")};
        for (size_t i = 0; i < std::size(kRates); ++i) {
            if (value != kRates[i]) continue;
            config.frameRate = static_cast<VioFrameRate_t>(i);
            return S_OK;
        }
        return E_INVALIDARG;
    }
    if (name != TEXT("readAhead")) return E_INVALIDARG;
    if (value == TEXT("auto")) {
        config.readAhead = CReadAhead::kAutomatic;
        return S_OK;
    }
    if (value.empty() || value.size() > 2) return E_INVALIDARG;
    uint32_t number = 0;
    for (const WCHAR c : value) {
        if (c < u'0' || c > u'9') return E_INVALIDARG;
        number = number * 10 + static_cast<uint32_t>(c - u'0');
    }
    if (number > 64) return E_INVALIDARG;
    config.readAhead = number;
    return S_OK;
}

HRESULT SetAttributes(const VARIANT& document, ChannelConfig& config) {
    IDispatch* object = nullptr;
    if (document.vt == VT_DISPATCH)
        object = document.pdispVal;
    else if (document.vt == (VT_DISPATCH | kByReference) && document.byref != nullptr)
        object = *static_cast<IDispatch**>(document.byref);
    if (object == nullptr) return E_INVALIDARG;
    CRef<IXMLDOMDocument> xml;
    if (FAILED(object->QueryInterface(IID_IXMLDOMDocument, xml.OutVoid()))) return E_INVALIDARG;
    CRef<IXMLDOMElement> root;
    // A text that did not parse left an empty document.
    if (xml->get_documentElement(root.Out()) != S_OK) return E_INVALIDARG;
    CText name;
    if (root->get_nodeName(name.Out()) != S_OK || name.View() != TEXT("channelConfig"))
        return E_INVALIDARG;
    Update update{config};
    HRESULT hr = SetFromRootAttributes(*root.Get(), update);
    if (SUCCEEDED(hr)) hr = SetFromChildren(*root.Get(), update);
    if (SUCCEEDED(hr)) config = update.config;
    return hr;
}

}  // namespace zemstore

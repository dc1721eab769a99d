// The configuration document: parsed as CMD_UPDATE_CFG hands it over, walked whole, and applied to
// a channel's configuration. The first byte says whether the text is UTF-16 or to be read as UTF-8.
#include "fuzz/fuzz.h"
#include "mediaio/store/channelconfig.h"
#include "platform/platform.h"
#include "platform/posix/utf.h"

using fuzz::Require;

namespace {

constexpr int kMaxDepth = 128;

class CText {
public:
    CText() = default;
    CText(const CText&) = delete;
    CText& operator=(const CText&) = delete;
    ~CText() { SysFreeString(m_text); }
    BSTR* Out() { return &m_text; }
    WStringView View() const {
        return {m_text ? m_text : TEXT(""), m_text ? SysStringLen(m_text) : 0u};
    }

private:
    BSTR m_text = nullptr;
};

void WalkAttributes(IXMLDOMNode& node) {
    IXMLDOMNamedNodeMap* map = nullptr;
    if (node.get_attributes(&map) != S_OK) return;
    LONG count = 0;
    Require(map->get_length(&count) == S_OK && count >= 0, "attributes are counted");
    for (LONG i = 0; i < count; ++i) {
        IXMLDOMNode* item = nullptr;
        Require(map->get_item(i, &item) == S_OK, "every attribute is there");
        CText name, text;
        Require(item->get_nodeName(name.Out()) == S_OK && item->get_text(text.Out()) == S_OK,
                "it has a name and a value");
        IXMLDOMNode* named = nullptr;
        Require(map->getNamedItem(*name.Out(), &named) == S_OK, "it is found by its name");
        named->Release();
        item->Release();
    }
    IXMLDOMNode* beyond = nullptr;
    Require(map->get_item(count, &beyond) != S_OK && !beyond, "there are no more");
    map->Release();
}

size_t Walk(IXMLDOMNode& node, int depth) {
    Require(depth <= kMaxDepth + 1, "the depth is bounded");
    DOMNodeType type = NODE_INVALID;
    Require(node.get_nodeType(&type) == S_OK, "a node has a kind");
    CText name;
    Require(node.get_nodeName(name.Out()) == S_OK, "a node has a name");
    if (type == NODE_ELEMENT) WalkAttributes(node);
    size_t count = 1;
    IXMLDOMNode* child = nullptr;
    HRESULT hr = node.get_firstChild(&child);
    while (hr == S_OK) {
        IXMLDOMNode* parent = nullptr;
        Require(child->get_parentNode(&parent) == S_OK, "a child has a parent");
        parent->Release();
        count += Walk(*child, depth + 1);
        IXMLDOMNode* next = nullptr;
        hr = child->get_nextSibling(&next);
        child->Release();
        child = next;
    }
    Require(hr == S_FALSE && !child, "the last one says so");
    return count;
}

void CheckConfig(const VARIANT& variant) {
    zemstore::ChannelConfig config;
    const zemstore::ChannelConfig before = config;
    const HRESULT hr = zemstore::SetAttributes(variant, config);
    const bool known =
        config.readAhead <= 64 || config.readAhead == zemstore::CReadAhead::kAutomatic;
    Require(known && config.frameRate >= 0 && config.frameRate <= 8, "only known values are taken");
    Require(SUCCEEDED(hr) ||
                (config.readAhead == before.readAhead && config.frameRate == before.frameRate),
            "all or none of it is applied");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const HRESULT apartment = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    Require(SUCCEEDED(apartment), "the thread has an apartment");
    fuzz::CReader reader(data, size);
    const bool wide = reader.Take<uint8_t>() == 'w';
    const std::string_view bytes = reader.TakeRest();
    std::u16string text(bytes.size() / 2, u'\0');
    if (wide)
        std::memcpy(text.data(), bytes.data(), text.size() * 2);
    else
        text = posix::ToUtf16(bytes);

    IXMLDOMDocument* document = nullptr;
    Require(CoCreateInstance(CLSID_FreeThreadedDOMDocument60, nullptr, CLSCTX_ALL,
                             IID_IXMLDOMDocument, reinterpret_cast<void**>(&document)) == S_OK,
            "there is a document");
    const BSTR xml = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    VARIANT_BOOL parsed = VARIANT_TRUE;
    const HRESULT hr = document->loadXML(xml, &parsed);
    SysFreeString(xml);
    Require(hr == S_OK ? parsed == VARIANT_TRUE : hr == S_FALSE && parsed == VARIANT_FALSE,
            "a text is taken or not");

    IXMLDOMElement* root = nullptr;
    Require((document->get_documentElement(&root) == S_OK) == (hr == S_OK),
            "it has a root if it was taken");
    if (root) root->Release();
    const size_t nodes = Walk(*document, 0);
    Require(nodes <= text.size() + 1, "nodes take text");
    VARIANT variant;
    VariantInit(&variant);
    variant.vt = VT_DISPATCH;
    variant.pdispVal = document;
    CheckConfig(variant);
    document->Release();
    return 0;
}

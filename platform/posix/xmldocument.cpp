// The XML document and its nodes over pugixml. Nodes are small wrappers made when asked for; each
// keeps the tree it points into alive, so that a document may be loaded anew or released while
// nodes of it are held. Any thread may read.
#include "platform/posix/xmldocument.h"

#include <atomic>
#include <iterator>
#include <memory>
#include <new>
#include <pugixml.hpp>
#include <string>

#include "platform/posix/utf.h"

const CLSID CLSID_FreeThreadedDOMDocument60 = {
    0x88D96A06, 0xF192, 0x11D4, {0xA6, 0x5F, 0x00, 0x40, 0x96, 0x32, 0x51, 0xE5}};
const IID IID_IXMLDOMNode = {
    0x2933BF80, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
const IID IID_IXMLDOMDocument = {
    0x2933BF81, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
const IID IID_IXMLDOMNamedNodeMap = {
    0x2933BF83, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
const IID IID_IXMLDOMElement = {
    0x2933BF86, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

namespace posix {
namespace {

using Tree = std::shared_ptr<const pugi::xml_document>;

HRESULT GiveText(const std::string& text, BSTR* result) {
    if (!result) return E_INVALIDARG;
    const std::u16string wide = ToUtf16(text);
    *result = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
    return *result ? S_OK : E_OUTOFMEMORY;
}

// Reference counting and the parts of IDispatch that every object answers alike. `Interfaces` are
// those it can be asked for besides IUnknown and IDispatch.
template <class Base>
class CDispatch : public Base {
public:
    HRESULT QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (!(iid == IID_IUnknown) && !(iid == IID_IDispatch) && !Answers(iid))
            return E_NOINTERFACE;
        // Single inheritance: every interface has the object's own address.
        *object = static_cast<Base*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
    ULONG Release() override {
        const ULONG rest = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (rest == 0) delete this;
        return rest;
    }
    HRESULT GetTypeInfoCount(UINT* count) override {
        if (!count) return E_INVALIDARG;
        *count = 0;
        return S_OK;
    }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }

protected:
    virtual ~CDispatch() = default;
    virtual bool Answers(REFIID iid) const = 0;

private:
    std::atomic<ULONG> m_refs{1};
};

HRESULT GiveNode(const Tree& tree, pugi::xml_node node, IXMLDOMNode** result);

void AppendText(pugi::xml_node node, std::string* text) {
    // Recursion ends at the depth that a document may have.
    for (const pugi::xml_node child : node) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
            *text += child.value();
        AppendText(child, text);
    }
}

std::string Trimmed(const std::string& text) {
    constexpr const char* kSpace = " \t\r\n";
    const size_t first = text.find_first_not_of(kSpace);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Elements, texts and CDATA sections; also the document itself through CXmlDocument.
template <class Base>
class CNode : public CDispatch<Base> {
public:
    HRESULT get_nodeName(BSTR* name) override {
        switch (Node().type()) {
            case pugi::node_pcdata:
                return GiveText("#text", name);
            case pugi::node_cdata:
                return GiveText("#cdata-section", name);
            case pugi::node_element:
                return GiveText(Node().name(), name);
            default:
                return GiveText("#document", name);
        }
    }
    HRESULT get_nodeType(DOMNodeType* type) override {
        if (!type) return E_INVALIDARG;
        switch (Node().type()) {
            case pugi::node_pcdata:
                *type = NODE_TEXT;
                break;
            case pugi::node_cdata:
                *type = NODE_CDATA_SECTION;
                break;
            case pugi::node_element:
                *type = NODE_ELEMENT;
                break;
            default:
                *type = NODE_DOCUMENT;
                break;
        }
        return S_OK;
    }
    HRESULT get_parentNode(IXMLDOMNode** parent) override {
        return GiveNode(m_tree, Node().parent(), parent);
    }
    HRESULT get_firstChild(IXMLDOMNode** child) override {
        return GiveNode(m_tree, Node().first_child(), child);
    }
    HRESULT get_nextSibling(IXMLDOMNode** sibling) override {
        return GiveNode(m_tree, Node().next_sibling(), sibling);
    }
    HRESULT get_attributes(IXMLDOMNamedNodeMap** attributes) override;
    HRESULT get_text(BSTR* text) override {
        std::string all = Node().value();
        AppendText(Node(), &all);
        return GiveText(Trimmed(all), text);
    }

protected:
    explicit CNode(Tree tree) : m_tree(std::move(tree)) {}
    virtual pugi::xml_node Node() const = 0;
    bool Answers(REFIID iid) const override { return iid == IID_IXMLDOMNode; }

    Tree m_tree;
};

class CTextNode final : public CNode<IXMLDOMNode> {
public:
    CTextNode(Tree tree, pugi::xml_node node) : CNode(std::move(tree)), m_node(node) {}

private:
    pugi::xml_node Node() const override { return m_node; }
    const pugi::xml_node m_node;
};

class CElement final : public CNode<IXMLDOMElement> {
public:
    CElement(Tree tree, pugi::xml_node node) : CNode(std::move(tree)), m_node(node) {}
    HRESULT get_tagName(BSTR* name) override { return GiveText(m_node.name(), name); }
    HRESULT getAttribute(BSTR name, VARIANT* value) override {
        if (!name || !value) return E_INVALIDARG;
        VariantInit(value);
        const pugi::xml_attribute attribute =
            m_node.attribute(ToUtf8({name, SysStringLen(name)}).c_str());
        if (!attribute) {
            value->vt = VT_NULL;
            return S_FALSE;
        }
        const HRESULT result = GiveText(attribute.value(), &value->bstrVal);
        if (SUCCEEDED(result)) value->vt = VT_BSTR;
        return result;
    }

private:
    pugi::xml_node Node() const override { return m_node; }
    bool Answers(REFIID iid) const override {
        return iid == IID_IXMLDOMElement || CNode::Answers(iid);
    }
    const pugi::xml_node m_node;
};

// An attribute is a node of its own in this model: it has a name and a text, and neither children
// nor siblings.
class CAttribute final : public CDispatch<IXMLDOMNode> {
public:
    CAttribute(Tree tree, pugi::xml_attribute attribute)
        : m_tree(std::move(tree)), m_attribute(attribute) {}
    HRESULT get_nodeName(BSTR* name) override { return GiveText(m_attribute.name(), name); }
    HRESULT get_nodeType(DOMNodeType* type) override {
        if (!type) return E_INVALIDARG;
        *type = NODE_ATTRIBUTE;
        return S_OK;
    }
    HRESULT get_parentNode(IXMLDOMNode** parent) override { return None(parent); }
    HRESULT get_firstChild(IXMLDOMNode** child) override { return None(child); }
    HRESULT get_nextSibling(IXMLDOMNode** sibling) override { return None(sibling); }
    HRESULT get_attributes(IXMLDOMNamedNodeMap** attributes) override { return None(attributes); }
    HRESULT get_text(BSTR* text) override { return GiveText(m_attribute.value(), text); }

private:
    template <class T>
    static HRESULT None(T** result) {
        if (!result) return E_INVALIDARG;
        *result = nullptr;
        return S_FALSE;
    }
    bool Answers(REFIID iid) const override { return iid == IID_IXMLDOMNode; }

    const Tree m_tree;
    const pugi::xml_attribute m_attribute;
};

class CAttributeMap final : public CDispatch<IXMLDOMNamedNodeMap> {
public:
    CAttributeMap(Tree tree, pugi::xml_node element)
        : m_tree(std::move(tree)), m_element(element) {}
    HRESULT getNamedItem(BSTR name, IXMLDOMNode** item) override {
        if (!name || !item) return E_INVALIDARG;
        return Give(m_element.attribute(ToUtf8({name, SysStringLen(name)}).c_str()), item);
    }
    HRESULT get_item(LONG index, IXMLDOMNode** item) override {
        if (!item) return E_INVALIDARG;
        pugi::xml_attribute attribute =
            index < 0 ? pugi::xml_attribute() : m_element.first_attribute();
        for (; attribute && index > 0; --index)
            attribute = attribute.next_attribute();
        return Give(attribute, item);
    }
    HRESULT get_length(LONG* length) override {
        if (!length) return E_INVALIDARG;
        const auto attributes = m_element.attributes();
        *length = static_cast<LONG>(std::distance(attributes.begin(), attributes.end()));
        return S_OK;
    }

private:
    HRESULT Give(pugi::xml_attribute attribute, IXMLDOMNode** item) {
        *item = nullptr;
        if (!attribute) return S_FALSE;
        *item = new (std::nothrow) CAttribute(m_tree, attribute);
        return *item ? S_OK : E_OUTOFMEMORY;
    }
    bool Answers(REFIID iid) const override { return iid == IID_IXMLDOMNamedNodeMap; }

    const Tree m_tree;
    const pugi::xml_node m_element;
};

template <class Base>
HRESULT CNode<Base>::get_attributes(IXMLDOMNamedNodeMap** attributes) {
    if (!attributes) return E_INVALIDARG;
    *attributes = nullptr;
    if (Node().type() != pugi::node_element) return S_FALSE;
    *attributes = new (std::nothrow) CAttributeMap(m_tree, Node());
    return *attributes ? S_OK : E_OUTOFMEMORY;
}

class CXmlDocument final : public CNode<IXMLDOMDocument> {
public:
    explicit CXmlDocument(Tree tree) : CNode(std::move(tree)) {}
    HRESULT get_documentElement(IXMLDOMElement** element) override {
        if (!element) return E_INVALIDARG;
        *element = nullptr;
        const pugi::xml_node root = m_tree->document_element();
        if (!root) return S_FALSE;
        *element = new (std::nothrow) CElement(m_tree, root);
        return *element ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT loadXML(BSTR xml, VARIANT_BOOL* successful) override {
        if (!successful) return E_INVALIDARG;
        *successful = VARIANT_FALSE;
        try {
            const UINT length = SysStringLen(xml);
            auto tree = std::make_shared<pugi::xml_document>();
            const bool loaded = IsAcceptableXml(xml, length) &&
                                tree->load_buffer(xml, length * sizeof(WCHAR), pugi::parse_default,
                                                  pugi::encoding_utf16_le);
            if (!loaded) tree = std::make_shared<pugi::xml_document>();
            m_tree = std::move(tree);
            if (!loaded) return S_FALSE;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        *successful = VARIANT_TRUE;
        return S_OK;
    }

private:
    pugi::xml_node Node() const override { return *m_tree; }
    bool Answers(REFIID iid) const override {
        return iid == IID_IXMLDOMDocument || CNode::Answers(iid);
    }
};

HRESULT GiveNode(const Tree& tree, pugi::xml_node node, IXMLDOMNode** result) {
    if (!result) return E_INVALIDARG;
    *result = nullptr;
    switch (node.type()) {
        case pugi::node_null:
            return S_FALSE;
        case pugi::node_element:
            *result = new (std::nothrow) CElement(tree, node);
            break;
        case pugi::node_document:
            *result = new (std::nothrow) CXmlDocument(tree);
            break;
        default:
            *result = new (std::nothrow) CTextNode(tree, node);
            break;
    }
    return *result ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

HRESULT CreateXmlDocument(REFIID iid, void** object) {
    auto* document = new CXmlDocument(std::make_shared<pugi::xml_document>());
    const HRESULT result = document->QueryInterface(iid, object);
    document->Release();
    return result;
}

}  // namespace posix

// The XML document as the configuration update hands it to a channel: the reading part of Windows'
// DOM interfaces, by the same names, so that one source walks it on both systems. Every get_ of a
// node gives S_OK, or S_FALSE and null when there is none. A document is immutable once loaded and
// may then be read from any thread; nodes keep their document alive. Differences: no DTD, no
// entities beyond the five predefined ones, no network, at most 128 levels and 65,536 tags, texts
// and attributes, so that a document takes little more memory than its text; comments, processing
// instructions and white space between elements are not part of the tree; only the methods listed
// exist.
#pragma once

#include "platform/posix/com.h"

enum DOMNodeType : int {
    NODE_INVALID = 0,
    NODE_ELEMENT = 1,
    NODE_ATTRIBUTE = 2,
    NODE_TEXT = 3,
    NODE_CDATA_SECTION = 4,
    NODE_DOCUMENT = 9,
};

#pragma GCC visibility push(default)

struct IXMLDOMNamedNodeMap;
struct IXMLDOMElement;

struct IXMLDOMNode : IDispatch {
    // "#document", the element's or attribute's name, "#text", "#cdata-section". The caller frees
    // the BSTR.
    virtual HRESULT get_nodeName(BSTR* name) = 0;
    virtual HRESULT get_nodeType(DOMNodeType* type) = 0;
    virtual HRESULT get_parentNode(IXMLDOMNode** parent) = 0;
    virtual HRESULT get_firstChild(IXMLDOMNode** child) = 0;
    virtual HRESULT get_nextSibling(IXMLDOMNode** sibling) = 0;
    // Of an element; S_FALSE for other nodes.
    virtual HRESULT get_attributes(IXMLDOMNamedNodeMap** attributes) = 0;
    // All text of the node and what is below it, white space at both ends removed; an attribute's
    // value as it is.
    virtual HRESULT get_text(BSTR* text) = 0;

protected:
    ~IXMLDOMNode() = default;
};

struct IXMLDOMNamedNodeMap : IDispatch {
    virtual HRESULT getNamedItem(BSTR name, IXMLDOMNode** item) = 0;
    virtual HRESULT get_item(LONG index, IXMLDOMNode** item) = 0;
    virtual HRESULT get_length(LONG* length) = 0;

protected:
    ~IXMLDOMNamedNodeMap() = default;
};

struct IXMLDOMElement : IXMLDOMNode {
    virtual HRESULT get_tagName(BSTR* name) = 0;
    // VT_BSTR and S_OK, or VT_NULL and S_FALSE.
    virtual HRESULT getAttribute(BSTR name, VARIANT* value) = 0;

protected:
    ~IXMLDOMElement() = default;
};

struct IXMLDOMDocument : IXMLDOMNode {
    virtual HRESULT get_documentElement(IXMLDOMElement** element) = 0;
    // Replaces the document: S_OK and VARIANT_TRUE, or S_FALSE and VARIANT_FALSE (and an empty
    // document) when the text is not well-formed or uses what is not supported. REQUIRES: nobody
    // reads the document meanwhile.
    virtual HRESULT loadXML(BSTR xml, VARIANT_BOOL* successful) = 0;

protected:
    ~IXMLDOMDocument() = default;
};

extern const CLSID CLSID_FreeThreadedDOMDocument60;
extern const IID IID_IXMLDOMNode;
extern const IID IID_IXMLDOMElement;
extern const IID IID_IXMLDOMDocument;
extern const IID IID_IXMLDOMNamedNodeMap;

#pragma GCC visibility pop

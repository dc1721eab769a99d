// What the parser lets pass and a document must not contain: a DTD, unknown entities, unbalanced or
// too deep tags, doubled attributes, text outside the root, characters that XML does not have. One
// pass over the text, no recursion. Any thread.
#include <algorithm>
#include <string_view>
#include <vector>

#include "platform/posix/utf.h"
#include "platform/posix/xmldocument.h"

namespace posix {
namespace {

using View = std::u16string_view;

constexpr size_t kMaxDepth = 128;
constexpr size_t kMaxPieces = 65536;     // tags, texts, attributes: each may take a node's memory
constexpr size_t kMaxAttributes = 1024;  // of one element; the search for doubled ones is quadratic

bool IsSpace(WCHAR c) {
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

// Name characters beyond ASCII are taken as they come.
bool IsNameStart(WCHAR c) {
    return c >= 0x80 || (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c == u'_' ||
           c == u':';
}

bool IsNameRest(WCHAR c) {
    return IsNameStart(c) || (c >= u'0' && c <= u'9') || c == u'-' || c == u'.';
}

bool IsCharacter(char32_t c) {
    return c >= 0x20 ? c != 0xFFFE && c != 0xFFFF : c == u'\t' || c == u'\r' || c == u'\n';
}

class CChecker {
public:
    explicit CChecker(View text) : m_rest(text) {}

    bool Run() {
        if (!m_rest.empty() && m_rest[0] == 0xFEFF) m_rest.remove_prefix(1);
        if (!CharactersValid()) return false;
        // A declaration may stand only at the very beginning.
        if (Starts(u"<?xml") && m_rest.size() > 5 && IsSpace(m_rest[5]) && !Skip(u"<?", u"?>"))
            return false;
        while (!m_rest.empty()) {
            if (!(m_rest[0] == u'<' ? Markup() : Text()) || ++m_pieces > kMaxPieces) return false;
        }
        return m_roots == 1 && m_open.empty();
    }

private:
    bool Starts(View what) const { return m_rest.substr(0, what.size()) == what; }

    bool CharactersValid() const {
        for (size_t i = 0; i < m_rest.size();) {
            const CDecoded decoded = DecodeUtf16(m_rest.data() + i, m_rest.size() - i);
            if (!decoded.valid || !IsCharacter(decoded.code)) return false;
            i += decoded.units;
        }
        return true;
    }

    // What begins here, up to and with `end`.
    bool Skip(View begin, View end) {
        const size_t at = m_rest.find(end, begin.size());
        if (at == View::npos) return false;
        m_rest.remove_prefix(at + end.size());
        return true;
    }

    bool Markup() {
        if (Starts(u"<!--")) return Comment();
        if (Starts(u"<![CDATA[")) return !m_open.empty() && Skip(u"<![CDATA[", u"]]>");
        if (Starts(u"<!")) return false;
        if (Starts(u"<?")) return Instruction();
        return Starts(u"</") ? EndTag() : StartTag();
    }

    bool Comment() {
        // Two hyphens may only end it.
        const size_t at = m_rest.find(u"--", 4);
        return at != View::npos && at + 2 < m_rest.size() && m_rest[at + 2] == u'>' &&
               Skip(u"<!--", u"-->");
    }

    bool Instruction() {
        m_rest.remove_prefix(2);
        View target;
        if (!Name(&target)) return false;
        const bool reserved = target.size() == 3 && AsciiLower(target[0]) == u'x' &&
                              AsciiLower(target[1]) == u'm' && AsciiLower(target[2]) == u'l';
        return !reserved && (Starts(u"?>") || (!m_rest.empty() && IsSpace(m_rest[0]))) &&
               Skip(u"", u"?>");
    }

    bool Name(View* name) {
        if (m_rest.empty() || !IsNameStart(m_rest[0])) return false;
        const auto end = std::find_if_not(m_rest.begin() + 1, m_rest.end(), IsNameRest);
        *name = m_rest.substr(0, static_cast<size_t>(end - m_rest.begin()));
        m_rest.remove_prefix(name->size());
        return true;
    }

    bool SkipSpace() {
        const size_t before = m_rest.size();
        while (!m_rest.empty() && IsSpace(m_rest[0]))
            m_rest.remove_prefix(1);
        return m_rest.size() != before;
    }

    bool Take(View what) {
        if (!Starts(what)) return false;
        m_rest.remove_prefix(what.size());
        return true;
    }

    bool EndTag() {
        m_rest.remove_prefix(2);
        View name;
        if (!Name(&name) || m_open.empty() || m_open.back() != name) return false;
        m_open.pop_back();
        SkipSpace();
        return Take(u">");
    }

    bool StartTag() {
        m_rest.remove_prefix(1);
        View name;
        if (!Name(&name)) return false;
        if (m_open.empty() && ++m_roots > 1) return false;
        if (m_open.size() == kMaxDepth) return false;
        m_attributes.clear();
        for (;;) {
            const bool space = SkipSpace();
            if (Take(u"/>")) return true;
            if (Take(u">")) {
                m_open.push_back(name);
                return true;
            }
            if (!space || !Attribute()) return false;
        }
    }

    bool Attribute() {
        View name;
        if (!Name(&name)) return false;
        SkipSpace();
        if (!Take(u"=")) return false;
        SkipSpace();
        if (m_rest.empty() || (m_rest[0] != u'"' && m_rest[0] != u'\'')) return false;
        const size_t end = m_rest.find(m_rest[0], 1);
        if (end == View::npos) return false;
        const View value = m_rest.substr(1, end - 1);
        m_rest.remove_prefix(end + 1);
        if (value.find(u'<') != View::npos || !EntitiesValid(value)) return false;
        if (m_attributes.size() == kMaxAttributes || ++m_pieces > kMaxPieces ||
            std::find(m_attributes.begin(), m_attributes.end(), name) != m_attributes.end()) {
            return false;
        }
        m_attributes.push_back(name);
        return true;
    }

    bool Text() {
        const View text = m_rest.substr(0, m_rest.find(u'<'));
        m_rest.remove_prefix(text.size());
        if (m_open.empty()) return std::all_of(text.begin(), text.end(), IsSpace);
        return text.find(u"]]>") == View::npos && EntitiesValid(text);
    }

    static bool EntitiesValid(View text) {
        for (size_t at = text.find(u'&'); at != View::npos; at = text.find(u'&', at + 1)) {
            const size_t end = text.find(u';', at);
            if (end == View::npos || !EntityValid(text.substr(at + 1, end - at - 1))) return false;
        }
        return true;
    }

    static bool EntityValid(View name) {
        constexpr View kKnown[] = {u"amp", u"lt", u"gt", u"quot", u"apos"};
        if (name.empty() || name[0] != u'#')
            return std::find(std::begin(kKnown), std::end(kKnown), name) != std::end(kKnown);
        const bool hex = name.size() > 1 && name[1] == u'x';
        const View digits = name.substr(hex ? 2 : 1);
        if (digits.empty() || digits.size() > 8) return false;
        char32_t code = 0;
        for (const WCHAR c : digits) {
            const WCHAR lower = AsciiLower(c);
            if (c >= u'0' && c <= u'9')
                code = code * (hex ? 16 : 10) + (c - u'0');
            else if (hex && lower >= u'a' && lower <= u'f')
                code = code * 16 + (lower - u'a' + 10u);
            else
                return false;
        }
        return code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF) && IsCharacter(code);
    }

    View m_rest;
    std::vector<View> m_open;
    std::vector<View> m_attributes;
    size_t m_pieces = 0;
    int m_roots = 0;
};

}  // namespace

bool IsAcceptableXml(const WCHAR* text, size_t length) {
    return CChecker(View(text, length)).Run();
}

}  // namespace posix

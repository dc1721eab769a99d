// The parser of registry files. Pure; any thread.
#include "platform/posix/registryfile.h"

#include <algorithm>
#include <cstring>

#include "platform/posix/registry.h"
#include "platform/posix/utf.h"

namespace posix {
namespace {

using View = std::u16string_view;

constexpr size_t kMaxDepth = 512;

std::u16string DecodeFile(std::string_view bytes) {
    if (bytes.substr(0, 2) == "\xFF\xFE") {
        std::u16string text((bytes.size() - 2) / 2, u'\0');
        std::memcpy(text.data(), bytes.data() + 2, text.size() * 2);
        return text;
    }
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    return ToUtf16(bytes);
}

std::string BytesOf(View text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

bool IsBlank(WCHAR c) {
    return c == u' ' || c == u'\t';
}

View Trim(View text) {
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

int HexDigit(WCHAR c) {
    const WCHAR lower = AsciiLower(c);
    if (lower >= u'0' && lower <= u'9') return lower - u'0';
    if (lower >= u'a' && lower <= u'f') return lower - u'a' + 10;
    return -1;
}

// Takes up to eight hexadecimal digits off the front; false when there is none or there are more.
bool TakeHex(View* text, uint32_t* value) {
    size_t count = 0;
    for (*value = 0; count < text->size() && HexDigit((*text)[count]) >= 0; ++count) {
        if (count == 8) return false;
        *value = *value << 4 | static_cast<uint32_t>(HexDigit((*text)[count]));
    }
    text->remove_prefix(count);
    return count > 0;
}

bool TakePrefix(View* text, View prefix) {
    if (text->size() < prefix.size() || LowerCase(text->substr(0, prefix.size())) != prefix)
        return false;
    text->remove_prefix(prefix.size());
    return true;
}

// Takes a quoted text, its quotes included.
bool TakeQuoted(View* text, std::u16string* result) {
    if (text->empty() || text->front() != u'"') return false;
    for (size_t i = 1; i < text->size(); ++i) {
        const WCHAR c = (*text)[i];
        if (c == u'"') {
            text->remove_prefix(i + 1);
            return true;
        }
        if (c != u'\\') {
            result->push_back(c);
            continue;
        }
        if (++i == text->size()) return false;
        switch ((*text)[i]) {
            case u'\\':
            case u'"':
                result->push_back((*text)[i]);
                break;
            case u'n':
                result->push_back(u'\n');
                break;
            case u'r':
                result->push_back(u'\r');
                break;
            default:
                return false;
        }
    }
    return false;
}

// What may follow a value on its line.
bool IsEnd(View rest) {
    rest = Trim(rest);
    return rest.empty() || rest.front() == u';';
}

class CParser {
public:
    CParser(View text, std::vector<CRegistryComplaint>* complaints)
        : m_rest(text), m_complaints(complaints) {}

    CRegistryTree Run() {
        bool first = true;
        View line;
        while (NextLine(&line)) {
            if (line.empty() || line.front() == u';') continue;
            const bool header = first && Header(line);
            if (first && !header) Complain("the first line is not a registry file's");
            first = false;
            if (header) continue;
            const char* problem = line.front() == u'[' ? Key(line) : Value(line);
            if (problem) Complain(problem);
        }
        return std::move(m_tree);
    }

private:
    bool NextLine(View* line) {
        if (m_rest.empty()) return false;
        const size_t end = m_rest.find(u'\n');
        *line = m_rest.substr(0, end);
        m_rest.remove_prefix(end == View::npos ? m_rest.size() : end + 1);
        ++m_line;
        if (!line->empty() && line->back() == u'\r') line->remove_suffix(1);
        *line = Trim(*line);
        return true;
    }

    void Complain(const char* reason) {
        m_complaints->push_back({m_start_line ? m_start_line : m_line, reason});
    }

    bool Header(View line) {
        m_narrow = line == u"REGEDIT4";
        return m_narrow || line == u"Windows Registry Editor Version 5.00";
    }

    const char* Key(View line) {
        m_start_line = 0;
        m_current = nullptr;
        m_ignore = true;  // values of a key that cannot be read are not complained about again
        const size_t close = line.rfind(u']');
        if (close == View::npos || !IsEnd(line.substr(close + 1)))
            return "a key's line does not end with ]";
        View name = line.substr(1, close - 1);
        const bool removes = !name.empty() && name.front() == u'-';
        if (removes) name.remove_prefix(1);
        std::u16string path;
        bool outside = false;
        if (!ParseRootedPath(name, &path, &outside))
            return outside ? nullptr : "the key's root is unknown";
        if (removes) {
            m_tree.Remove(path);
        } else {
            m_current = &m_tree.Make(path);
            m_ignore = false;
        }
        return nullptr;
    }

    const char* Value(View line) {
        m_start_line = m_line;
        const char* problem = ValueAt(line);
        if (problem == nullptr) m_start_line = 0;
        return problem;
    }

    const char* ValueAt(View line) {
        std::u16string name;
        if (line.front() == u'@')
            line.remove_prefix(1);
        else if (!TakeQuoted(&line, &name))
            return "neither a key, a value nor a comment";
        line = Trim(line);
        if (!TakePrefix(&line, u"=")) return "a value without =";
        line = Trim(line);
        CRegistryValue value;
        bool removes = false;
        const char* problem = Data(line, &value, &removes);
        if (problem || m_ignore) return problem;
        if (!m_current) return "a value outside a key";
        name = LowerCase(name);
        if (removes)
            m_current->erase(name);
        else
            (*m_current)[name] = std::move(value);
        return nullptr;
    }

    const char* Data(View line, CRegistryValue* value, bool* removes) {
        if (!line.empty() && line.front() == u'"') {
            std::u16string text;
            if (!TakeQuoted(&line, &text) || !IsEnd(line))
                return "a text is not closed or has an unknown \\ sequence";
            text.push_back(u'\0');
            value->type = REG_SZ;
            value->data = BytesOf(text);
            return nullptr;
        }
        if (TakePrefix(&line, u"dword:")) {
            uint32_t number;
            if (!TakeHex(&line, &number) || !IsEnd(line))
                return "a dword is not of one to eight hexadecimal digits";
            value->type = REG_DWORD;
            value->data.assign(reinterpret_cast<const char*>(&number), sizeof(number));
            return nullptr;
        }
        if (TakePrefix(&line, u"hex")) return Bytes(line, value);
        *removes = TakePrefix(&line, u"-") && IsEnd(line);
        return *removes ? nullptr : "the value is of no known kind";
    }

    const char* Bytes(View line, CRegistryValue* value) {
        value->type = REG_BINARY;
        if (TakePrefix(&line, u"(") && (!TakeHex(&line, &value->type) || !TakePrefix(&line, u")")))
            return "the type in hex() is not a number";
        if (!TakePrefix(&line, u":")) return "hex without :";
        for (;;) {
            line = Trim(line);
            if (line == u"\\") {
                if (!NextLine(&line)) return "the last line is continued";
                continue;
            }
            if (IsEnd(line)) break;
            uint32_t byte;
            if (!TakeHex(&line, &byte) || byte > 0xFF)
                return "a byte is not of one or two hexadecimal digits";
            value->data.push_back(static_cast<char>(byte));
            line = Trim(line);
            if (!TakePrefix(&line, u",") && !IsEnd(line))
                return "bytes are not separated by commas";
        }
        const bool text =
            value->type == REG_SZ || value->type == REG_EXPAND_SZ || value->type == REG_MULTI_SZ;
        if (m_narrow && text) value->data = BytesOf(ToUtf16(value->data));
        return nullptr;
    }

    View m_rest;
    std::vector<CRegistryComplaint>* m_complaints;
    CRegistryTree m_tree;
    RegistryKeyValues* m_current = nullptr;
    bool m_ignore = false;
    bool m_narrow = false;
    size_t m_line = 0;
    size_t m_start_line = 0;  // of a value that may go over several lines
};

}  // namespace

CRegistryTree::CRegistryTree() {
    keys.emplace();
}

const RegistryKeyValues* CRegistryTree::Find(const std::u16string& path) const {
    const auto found = keys.find(path);
    return found == keys.end() ? nullptr : &found->second;
}

RegistryKeyValues& CRegistryTree::Make(const std::u16string& path) {
    for (size_t at = path.find(u'\\'); at != std::u16string::npos; at = path.find(u'\\', at + 1))
        keys.try_emplace(path.substr(0, at));
    return keys[path];
}

void CRegistryTree::Remove(const std::u16string& path) {
    // The root itself stays, as on Windows.
    if (path.empty()) return;
    const std::u16string below = path + u'\\';
    std::erase_if(keys, [&](const auto& entry) {
        return entry.first == path || entry.first.starts_with(below);
    });
}

std::u16string LowerCase(View text) {
    std::u16string result(text);
    for (WCHAR& c : result)
        c = AsciiLower(c);
    return result;
}

bool ParseRootedPath(View text, std::u16string* path, bool* outside) {
    std::u16string lower = LowerCase(text);
    const size_t end = lower.find(u'\\');
    const View root = View(lower).substr(0, end);
    const View rest = end == std::u16string::npos ? View() : View(lower).substr(end + 1);
    *outside =
        root == u"hkey_current_user" || root == u"hkey_users" || root == u"hkey_current_config";
    // Empty parts name no key.
    if (rest.find(u"\\\\") != View::npos ||
        (end != std::u16string::npos &&
         (rest.empty() || rest.front() == u'\\' || rest.back() == u'\\'))) {
        return false;
        // Bounds what Make does for the parents of one line.
    }
    if (static_cast<size_t>(std::count(rest.begin(), rest.end(), u'\\')) >= kMaxDepth) return false;
    if (root == u"hkey_local_machine") {
        *path = rest;
        return true;
    }
    if (root != u"hkey_classes_root") return false;
    *path = u"software\\classes";
    if (!rest.empty()) (*path += u'\\') += rest;
    return true;
}

CRegistryTree ParseRegistryFile(std::string_view bytes,
                                std::vector<CRegistryComplaint>* complaints) {
    const std::u16string text = DecodeFile(bytes);
    return CParser(text, complaints).Run();
}

}  // namespace posix

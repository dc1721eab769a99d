// The registry file. Whatever its bytes are, what is read of it can be written out again as a
// registry file and reads back the same.
#include "fuzz/fuzz.h"
#include "platform/posix/registryfile.h"

using fuzz::Require;
using posix::CRegistryTree;

namespace {

std::u16string Wide(const char* text) {
    return {text, text + std::strlen(text)};
}

void AppendQuoted(std::u16string& out, const std::u16string& text) {
    out += u'"';
    for (const char16_t c : text) {
        if (c == u'\r' || c == u'\n') {
            out += c == u'\r' ? u"\\r" : u"\\n";
            continue;
        }
        if (c == u'"' || c == u'\\') out += u'\\';
        out += c;
    }
    out += u'"';
}

std::string Write(const CRegistryTree& tree) {
    std::u16string out = u"\uFEFFWindows Registry Editor Version 5.00\r\n";
    for (const auto& [path, values] : tree.keys) {
        out += u"[HKEY_LOCAL_MACHINE" + (path.empty() ? path : u'\\' + path) + u"]\r\n";
        for (const auto& [name, value] : values) {
            AppendQuoted(out, name);
            char type[24];
            std::snprintf(type, sizeof type, "=hex(%x):", value.type);
            out += Wide(type);
            for (size_t i = 0; i < value.data.size(); ++i) {
                char byte[8];
                std::snprintf(byte, sizeof byte, "%s%02x", i == 0 ? "" : ",",
                              static_cast<unsigned char>(value.data[i]));
                out += Wide(byte);
            }
            out += u"\r\n";
        }
    }
    return {reinterpret_cast<const char*>(out.data()), out.size() * sizeof(char16_t)};
}

void CheckParents(const CRegistryTree& tree) {
    Require(tree.Find(u"") != nullptr, "the root is there");
    for (const auto& [path, values] : tree.keys) {
        const size_t at = path.rfind(u'\\');
        const bool below = at != std::u16string::npos;
        Require(!below || tree.Find(path.substr(0, at)), "a key's parents are there");
    }
}

bool Equal(const CRegistryTree& a, const CRegistryTree& b) {
    if (a.keys.size() != b.keys.size()) return false;
    for (const auto& [path, values] : a.keys) {
        const posix::RegistryKeyValues* others = b.Find(path);
        if (!others || others->size() != values.size()) return false;
        for (const auto& [name, value] : values) {
            const auto found = others->find(name);
            if (found == others->end() || found->second.type != value.type ||
                found->second.data != value.data) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::vector<posix::CRegistryComplaint> complaints;
    const CRegistryTree tree = posix::ParseRegistryFile(bytes, &complaints);
    const auto lines = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n')) + 1;
    Require(complaints.size() <= lines + 1, "a line is complained about once, the first one twice");
    for (const posix::CRegistryComplaint& complaint : complaints) {
        Require(complaint.line >= 1 && complaint.line <= lines && complaint.reason,
                "a complaint names a line");
    }
    CheckParents(tree);

    std::vector<posix::CRegistryComplaint> none;
    Require(Equal(posix::ParseRegistryFile(Write(tree), &none), tree), "it reads back the same");
    Require(none.empty(), "without complaint");
    return 0;
}

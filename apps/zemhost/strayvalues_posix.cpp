// The registry is a file of the server's own here, so a name in it that nobody asks for is most
// likely one that was misspelt.
#include <algorithm>

#include "apps/zemhost/widetext.h"
#include "apps/zemhost/wrongvalues.h"

namespace {

constexpr size_t kMaxRemarks = 20;

std::string Lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

bool IsKnown(const std::string& key, const std::string& name) {
    return std::any_of(
        kRegistryPlaces.begin(), kRegistryPlaces.end(), [&](const RegistryPlace& place) {
            return Lower(NarrowText(place.key)) == key && Lower(NarrowText(place.value)) == name;
        });
}

bool IsContentType(const std::string& key, const std::string& name) {
    constexpr std::string_view kClasses = "software\\classes\\.";
    return key.starts_with(kClasses) && key.find('\\', kClasses.size()) == std::string::npos &&
           name == "content type";
}

void Look(void* context, LPCWSTR wideKey, LPCWSTR wideName, DWORD type) {
    auto& remarks = *static_cast<std::vector<std::string>*>(context);
    const std::string key = NarrowText(wideKey);
    const std::string name = NarrowText(wideName);
    const std::string value = (name.empty() ? "the default value" : "the value " + name) +
                              " of hkey_local_machine\\" + key;
    if (!IsContentType(key, name)) {
        if (!IsKnown(key, name)) remarks.push_back("nobody reads " + value);
    } else if (type != REG_SZ && type != REG_EXPAND_SZ) {
        remarks.push_back(value + " is no text and is not read");
    }
}

}  // namespace

std::vector<std::string> FindStrayValues() {
    std::vector<std::string> remarks;
    VisitRegistryValues(Look, &remarks);
    if (remarks.size() > kMaxRemarks) {
        const size_t more = remarks.size() - kMaxRemarks;
        remarks.resize(kMaxRemarks);
        remarks.push_back("there are " + std::to_string(more) + " more values that nobody reads");
    }
    return remarks;
}

// See nearestfolder.h.
#include "apps/zem/nearestfolder.h"

#include <algorithm>

#include "apps/zem/client/text.h"
#include "apps/zem/client/wire.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"

namespace zem {

std::string PathIn(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

NearestFolder FindNearestFolder(CZemClient& client, const std::string& folder) {
    constexpr const char* kSeparators = "/\\";
    std::string nearest = folder;
    const auto dropTail = [&nearest](size_t from) {
        nearest.erase(std::min(from, nearest.size()));
    };
    dropTail(nearest.find_last_not_of(kSeparators) + 1);
    // What cannot be is left as it is, for the server to refuse.
    if (WhyBadName(FileNamed(nearest).name).word != nullptr) return {nearest, ""};
    const std::string wanted = nearest;
    while (!nearest.empty() && client.Attributes(FileNamed(nearest).name) == kNoAttributes) {
        const size_t above = nearest.find_last_of(kSeparators);
        dropTail(above == std::string::npos ? 0 : nearest.find_last_not_of(kSeparators, above) + 1);
    }
    if (nearest == wanted) return {nearest, ""};
    return {nearest, ", in " + (nearest.empty() ? "the volume root" : Printable(nearest)) +
                         ": there is no " + Printable(wanted)};
}

}  // namespace zem

// Where on the server a verb may work that is to leave no folder behind. Main thread only.
#pragma once

#include <string>

#include "apps/zem/client/zemclient.h"

namespace zem {

// A folder of the server, or where it is missing the nearest one above that is there. A server
// makes the folders of a file that it creates and has no command to delete them: who wants to leave
// nothing behind works in one that is there.
struct NearestFolder {
    std::string path;  // "" is the volume root
    std::string note;  // "", or ", in the volume root: there is no media"
};
NearestFolder FindNearestFolder(CZemClient& client, const std::string& folder);
// "media/name"; in the volume root "name".
std::string PathIn(const std::string& folder, const std::string& name);

}  // namespace zem

// Becoming another user, and giving up what only the start needs. Main thread, while it is the only
// one: capabilities belong to threads, and those that come later inherit what is left.
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "apps/zemhost/hostsystem.h"

namespace {

bool DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};  // this thread
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 && errno != EINVAL)
        return false;
    return syscall(SYS_capset, &header, none) == 0;
}

// What no program that is executed from here could have either. A root that may not take it away
// has not got much itself.
void EmptyBoundingSet() {
    unsigned long capability = 0;
    while (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0)
        ++capability;
}

bool BecomeUser(const passwd& entry) {
    EmptyBoundingSet();
    return initgroups(entry.pw_name, entry.pw_gid) == 0 && setgid(entry.pw_gid) == 0 &&
           setuid(entry.pw_uid) == 0;
}

}  // namespace

std::string CheckUser(const std::string& user) {
    if (user.empty()) return {};
    const passwd* const entry = getpwnam(user.c_str());
    if (!entry) return "there is no user '" + user + "'; give one that exists with --user NAME";
    if (entry->pw_uid == 0 || entry->pw_gid == 0)
        return "the user '" + user + "' has root's rights; give one without with --user NAME";
    if (geteuid() != 0 && geteuid() != entry->pw_uid) {
        return "only root can become the user '" + user +
               "'; start zemhost as root or without --user";
    }
    return {};
}

std::string GiveUpRights(const std::string& user) {
    bool done = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
    if (!user.empty() && geteuid() == 0) {
        const passwd* const entry = getpwnam(user.c_str());
        done = done && entry && BecomeUser(*entry) && setuid(0) != 0;
    }
    if (geteuid() != 0) done = done && DropCapabilities();
    if (done) return {};
    return std::string("the rights of the start could not be given up (") + std::strerror(errno) +
           "); zemhost does not run with them";
}

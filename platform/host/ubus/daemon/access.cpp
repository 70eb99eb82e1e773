#include "access.h"
#include "message.h"

#include <algorithm>
#include <cstdio>
#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace tavrik {

bool find_credentials(int fd, Credentials &credentials) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0)
        return false;
    const passwd *user = getpwuid(peer.uid);
    const group *group = getgrgid(peer.gid);
    if (!user || !group)
        return false;
    credentials.uid = peer.uid;
    credentials.gid = peer.gid;
    credentials.user = user->pw_name;
    credentials.group = group->gr_name;
    return true;
}

bool Access::Rule::applies(const Credentials &who) const {
    if (!for_group)
        return name == who.user;
    return name == who.group;
}

bool Access::allowed(const Credentials &who, Kind kind, std::string_view name) const {
    if (who.uid == 0)
        return true;
    for (const Rule &rule : rules_)
        if (rule.applies(who))
            for (const std::string &pattern : rule.names[kind])
                if (matches(pattern, name))
                    return true;
    return false;
}

bool Access::may_call(const Credentials &who, std::string_view path, std::string_view method) const {
    if (who.uid == 0)
        return true;
    for (const Rule &rule : rules_)
        if (rule.applies(who))
            for (const auto &[pattern, methods] : rule.methods)
                if (matches(pattern, path))
                    for (const std::string &name : methods)
                        if (matches(name, method))
                            return true;
    return false;
}

std::string Access::describe() const { return {}; }

bool Access::load() { return false; }

} // namespace tavrik

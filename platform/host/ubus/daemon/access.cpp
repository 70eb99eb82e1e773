#include "access.h"
#include "message.h"

#include <algorithm>
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
    length = 0;
#ifdef SO_PEERGROUPS
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, nullptr, &length) < 0 && errno == ERANGE) {
        credentials.groups.resize(length / sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, credentials.groups.data(), &length) < 0)
            credentials.groups.clear();
    }
#endif
    return true;
}

bool Access::Rule::applies(const Credentials &who) const {
    if (!for_group)
        return name == who.user;
    return name == who.group || std::find(who.groups.begin(), who.groups.end(), gid) != who.groups.end();
}

bool Access::allowed(const Credentials &who, Kind kind, std::string_view name) const {
    auto fits = [&](const std::string &pattern) { return matches(pattern, name); };
    return who.uid == 0 || std::any_of(rules_.begin(), rules_.end(), [&](const Rule &rule) {
               const auto &names = rule.names[kind];
               return rule.applies(who) && std::any_of(names.begin(), names.end(), fits);
           });
}

bool Access::may_call(const Credentials &who, std::string_view path, std::string_view method) const {
    if (who.uid == 0)
        return true;
    for (const Rule &rule : rules_) {
        if (!rule.applies(who))
            continue;
        for (const auto &[pattern, methods] : rule.methods)
            for (const std::string &name : methods)
                if ((name == method || name == "*") && matches(pattern, path))
                    return true;
    }
    return false;
}

std::string Access::describe(const std::string &path) const {
    Body all;
    for (const Rule &rule : rules_)
        for (const auto &[pattern, acl] : rule.acl)
            if (matches(pattern, path)) {
                Body one;
                one.field_string("obj", path).field_string(rule.for_group ? "group" : "user", rule.name);
                all.field(BLOBMSG_TYPE_TABLE, "", one.field(BLOBMSG_TYPE_TABLE, "acl", acl).bytes());
            }
    return std::string(all.bytes());
}

namespace {

// Calls back for each field of a table, or element of an array, that is well formed.
template <class Each>
void for_each_field(blob_attr *parent, Each each) {
    blob_attr *attr;
    size_t rem;
    if (parent)
        blobmsg_for_each_attr(attr, parent, rem) if (blobmsg_check_attr_len(attr, false, rem)) each(attr);
}

std::vector<std::string> strings(blob_attr *array) {
    std::vector<std::string> all;
    for_each_field(array, [&](blob_attr *attr) {
        if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING)
            all.emplace_back(blobmsg_get_string(attr));
    });
    return all;
}

} // namespace

void Access::load_file(const std::string &path) {
    // What others could write gives them no rights.
    struct stat info;
    if (stat(path.c_str(), &info) < 0 || info.st_uid != 0 || info.st_gid != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)))
        return;
    enum { User, Group, AccessTo, Names }; // then one for each Kind
    static constexpr blobmsg_policy policy[] = {
        {"user", BLOBMSG_TYPE_STRING},   {"group", BLOBMSG_TYPE_STRING},    {"access", BLOBMSG_TYPE_TABLE},
        {"publish", BLOBMSG_TYPE_ARRAY}, {"subscribe", BLOBMSG_TYPE_ARRAY}, {"listen", BLOBMSG_TYPE_ARRAY},
        {"send", BLOBMSG_TYPE_ARRAY},
    };
    blob_attr *fields[std::size(policy)];
    blob_buf file{};
    blobmsg_buf_init(&file);
    if (blobmsg_add_json_from_file(&file, path.c_str()) &&
        blobmsg_parse(policy, std::size(policy), fields, blob_data(file.head),
                      static_cast<unsigned>(blob_len(file.head))) == 0 &&
        (fields[User] || fields[Group])) {
        Rule rule;
        rule.for_group = !fields[User];
        rule.name = blobmsg_get_string(fields[rule.for_group ? Group : User]);
        const group *group = rule.for_group ? getgrnam(rule.name.c_str()) : nullptr;
        rule.gid = group ? group->gr_gid : static_cast<gid_t>(-1);
        for (int kind = 0; kind < KindCount; kind++)
            rule.names[kind] = strings(fields[Names + kind]);
        for_each_field(fields[AccessTo], [&](blob_attr *object) {
            if (blobmsg_type(object) != BLOBMSG_TYPE_TABLE)
                return;
            std::string pattern = blobmsg_name(object);
            for_each_field(object, [&](blob_attr *attr) {
                std::string_view key = blobmsg_name(attr);
                if (key == "methods" && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY)
                    rule.methods[pattern] = strings(attr);
                else if (key == "acl" && blobmsg_type(attr) == BLOBMSG_TYPE_TABLE)
                    rule.acl[pattern].assign(static_cast<char *>(blobmsg_data(attr)), blobmsg_data_len(attr));
            });
        });
        rules_.push_back(std::move(rule));
    }
    blob_buf_free(&file);
}

bool Access::load() {
    glob_t found{};
    bool any = glob((folder_ + "/*.json").c_str(), 0, nullptr, &found) == 0;
    if (any) {
        rules_.clear();
        for (size_t i = 0; i < found.gl_pathc; i++)
            load_file(found.gl_pathv[i]);
    }
    globfree(&found);
    return any;
}

} // namespace tavrik

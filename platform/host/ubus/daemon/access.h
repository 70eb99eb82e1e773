// Who may do what: user 0 everything, others what the rule files allow.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tavrik {

struct Credentials {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups; // the supplementary ones
    std::string user, group;
};

// False if the user or the group has no name.
bool find_credentials(int fd, Credentials &credentials);

class Access {
  public:
    enum Kind { Publish, Subscribe, Listen, Send, KindCount };

    explicit Access(std::string folder) : folder_(std::move(folder)) {}
    // True if there were files; without any, the old rules stay.
    bool load();
    bool allowed(const Credentials &who, Kind kind, std::string_view name) const;
    bool may_call(const Credentials &who, std::string_view path, std::string_view method) const;
    // What the rules say to the object's own service, as elements of a blobmsg array.
    std::string describe(const std::string &path) const;

  private:
    struct Rule {
        bool for_group;
        std::string name;
        gid_t gid;                                               // of that name
        std::map<std::string, std::vector<std::string>> methods; // by path
        std::map<std::string, std::string> acl;                  // by path: for the service, blobmsg fields
        std::vector<std::string> names[KindCount];

        bool applies(const Credentials &who) const;
    };
    void load_file(const std::string &path);

    std::string folder_;
    std::vector<Rule> rules_;
};

} // namespace tavrik

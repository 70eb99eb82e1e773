#include "bus.h"

#include <algorithm>
#include <sys/socket.h>
#include <unistd.h>

namespace tavrik {

namespace {

constexpr size_t max_held = 16 << 20; // memory for the objects of one client

constexpr blob_attr_info attribute_types[UBUS_ATTR_MAX] = {
    {},
    {BLOB_ATTR_INT32, 0, 0, nullptr},
    {BLOB_ATTR_STRING, 0, 0, nullptr},
    {BLOB_ATTR_INT32, 0, 0, nullptr},
    {BLOB_ATTR_STRING, 0, 0, nullptr},
    {BLOB_ATTR_INT32, 0, 0, nullptr},
    {BLOB_ATTR_NESTED, 0, 0, nullptr},
    {BLOB_ATTR_NESTED, 0, 0, nullptr},
    {BLOB_ATTR_INT32, 0, 0, nullptr},
    {BLOB_ATTR_INT8, 0, 0, nullptr},
    {BLOB_ATTR_INT8, 0, 0, nullptr},
    {BLOB_ATTR_NESTED, 0, 0, nullptr},
    {BLOB_ATTR_STRING, 0, 0, nullptr},
    {BLOB_ATTR_STRING, 0, 0, nullptr},
};

// Removes the newest entry.
void remove_last(std::vector<Object *> &from, const Object *object) {
    auto it = std::find(from.rbegin(), from.rend(), object);
    if (it != from.rend())
        from.erase(std::next(it).base());
}

// The methods of a signature; false if one has no name.
bool parse_signature(blob_attr *signature, Type &type) {
    blob_attr *attr;
    size_t rem;
    blob_for_each_attr(attr, signature, rem) {
        if (!blobmsg_check_attr_len(attr, true, rem))
            return false;
        type.methods.emplace_back(blobmsg_name(attr), std::string(reinterpret_cast<char *>(attr), blob_raw_len(attr)));
    }
    return true;
}

} // namespace

Attributes::Attributes(blob_attr *outer) {
    blob_parse_untrusted(outer, blob_raw_len(outer), at, attribute_types, UBUS_ATTR_MAX);
}

Bus::Bus(std::string rule_folder) : access_(std::move(rule_folder)) { rule_seq_ = access_.load(); }

Bus::~Bus() {
    while (!clients_.empty())
        remove_client(clients_.begin()->second.get());
}

template <class Map> uint32_t Bus::new_id(const Map &taken) {
    for (;;) {
        uint32_t id = random_();
        // A client reads its own id without swapping bytes, and takes 0 and 1 for errors.
        if (id >= UBUS_SYSTEM_OBJECT_MAX && __builtin_bswap32(id) > 1 && !taken.count(id))
            return id;
    }
}

Client *Bus::add_client(int fd) {
    Credentials who;
    if (!find_credentials(fd, who)) {
        close(fd);
        return nullptr;
    }
    return add_client(fd, std::move(who));
}

Client *Bus::add_client(int fd, Credentials who) {
    uint32_t id = new_id(clients_);
    auto &client = clients_[id] = std::make_unique<Client>(*this, fd, id, std::move(who));
    client->send({0, UBUS_MSG_HELLO, 0, id}, {});
    if (client->watch())
        return client.get();
    clients_.erase(id);
    return nullptr;
}

void Bus::remove_client(Client *client) {
    while (!client->objects.empty())
        drop_object(client->objects.back());
    monitors_.erase(client);
    clients_.erase(client->id);
}

void Bus::status(Client &to, const Header &request, int value) {
    to.send({0, UBUS_MSG_STATUS, request.seq, request.peer},
            Body().put_u32(UBUS_ATTR_STATUS, static_cast<uint32_t>(value)).bytes());
}

void Bus::report(const Client &client, const Header &header, std::string_view body, bool to_client) {
    for (Client *monitor : monitors_) {
        Body report;
        report.put_u32(UBUS_MONITOR_CLIENT, client.id)
            .put_u32(UBUS_MONITOR_PEER, header.peer)
            .put_u32(UBUS_MONITOR_SEQ, header.seq)
            .put_u32(UBUS_MONITOR_TYPE, header.type)
            .put_u8(UBUS_MONITOR_SEND, to_client)
            .put(UBUS_MONITOR_DATA, body);
        auto seq = static_cast<uint16_t>(++*monitor->monitor);
        monitor->transmit({0, UBUS_MSG_MONITOR, seq, 0}, report.bytes(), -1);
    }
}

constexpr int no_status = -1; // the request is answered otherwise, or not at all

void Bus::handle(Client &from, const Header &header, blob_attr *outer, int fd) {
    std::string_view body(outer->data, blob_len(outer));
    if (monitored())
        report(from, header, body, false);
    Attributes attrs(outer);
    int result = UBUS_STATUS_INVALID_COMMAND;
    switch (header.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        return forward_answer(from, header, attrs, body, header.type == UBUS_MSG_STATUS ? fd : -1);
    case UBUS_MSG_PING:
        from.send({header.version, UBUS_MSG_DATA, header.seq, header.peer}, body);
        result = UBUS_STATUS_OK;
        break;
    case UBUS_MSG_LOOKUP:
        result = lookup(from, header, attrs);
        break;
    case UBUS_MSG_INVOKE:
        result = invoke(from, header, attrs, fd);
        break;
    case UBUS_MSG_ADD_OBJECT:
        result = add_object(from, header, attrs);
        break;
    case UBUS_MSG_REMOVE_OBJECT:
        result = remove_object(from, header, attrs);
        break;
    case UBUS_MSG_SUBSCRIBE:
    case UBUS_MSG_UNSUBSCRIBE:
        result = subscribe(from, attrs, header.type == UBUS_MSG_SUBSCRIBE);
        break;
    case UBUS_MSG_NOTIFY:
        result = notify(from, header, attrs);
        break;
    }
    if (result != no_status)
        status(from, header, result);
}

Object *Bus::find(uint32_t id) const {
    auto it = objects_.find(id);
    return it == objects_.end() ? nullptr : it->second.get();
}

bool Bus::charge(Client &client, size_t cost) {
    if (client.held + cost > max_held)
        return false;
    client.held += cost;
    return true;
}

int Bus::lookup(Client &from, const Header &header, const Attributes &attrs) {
    const char *path = attrs.text(UBUS_ATTR_OBJPATH);
    if (path && !*path)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Lookup lookup;
    lookup.request = header;
    lookup.all = !path;
    lookup.pattern = path ? path : "";
    lookup.prefix = path && lookup.pattern.back() == '*';
    if (lookup.prefix)
        lookup.pattern.pop_back();
    from.lookup = std::move(lookup);
    go_on(from);
    return no_status;
}

bool Bus::show(Client &to, const Lookup &lookup, const Object &object) {
    if (!object.type)
        return false;
    std::string signature;
    for (const auto &[name, attr] : object.type->methods)
        if (access_.may_call(to.who, object.path, name))
            signature.append(attr).append(-attr.size() & 3, '\0');
    if (to.who.uid != 0 && signature.empty())
        return false;
    Body body;
    body.put_string(UBUS_ATTR_OBJPATH, object.path)
        .put_u32(UBUS_ATTR_OBJID, object.id)
        .put_u32(UBUS_ATTR_OBJTYPE, object.type->id)
        .put(UBUS_ATTR_SIGNATURE, signature);
    to.send({0, UBUS_MSG_DATA, lookup.request.seq, lookup.request.peer}, body.bytes());
    return true;
}

void Bus::go_on(Client &client) {
    while (client.lookup && client.idle()) {
        Lookup &lookup = *client.lookup;
        auto it = lookup.started ? paths_.upper_bound(lookup.last) : paths_.lower_bound(lookup.pattern);
        bool more = it != paths_.end() &&
                    (lookup.all || (lookup.prefix ? !it->first.compare(0, lookup.pattern.size(), lookup.pattern)
                                                  : it->first == lookup.pattern));
        if (!more) {
            Lookup done = std::move(lookup);
            client.lookup.reset();
            status(client, done.request, done.found || done.all ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
            return;
        }
        lookup.started = lookup.found = true;
        lookup.last = it->first;
        show(client, lookup, *it->second);
    }
}

int Bus::add_object(Client &from, const Header &header, const Attributes &attrs) {
    const char *path = attrs.text(UBUS_ATTR_OBJPATH);
    if (path && (!access_.allowed(from.who, Access::Publish, path) || paths_.count(path)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_attr *signature = attrs.at[UBUS_ATTR_SIGNATURE];
    size_t cost = sizeof(Object) + 256 + (path ? 2 * strlen(path) : 0) + (signature ? 4 * blob_len(signature) : 0);
    if (!charge(from, cost))
        return UBUS_STATUS_NO_MEMORY;

    Type *type = nullptr;
    if (attrs.at[UBUS_ATTR_OBJTYPE]) {
        auto it = types_.find(attrs.u32(UBUS_ATTR_OBJTYPE));
        type = it == types_.end() ? nullptr : it->second.get();
        signature = nullptr;
    } else if (signature) {
        auto fresh = std::make_unique<Type>();
        if (parse_signature(signature, *fresh)) {
            fresh->id = new_id(types_);
            type = fresh.get();
            types_[type->id] = std::move(fresh);
        }
    }
    uint32_t id = new_id(objects_);
    auto &object = objects_[id] = std::make_unique<Object>();
    object->id = id;
    object->owner = &from;
    object->has_path = path;
    object->path = path ? path : "";
    object->type = type;
    object->cost = cost;
    if (type)
        type->users++;
    from.objects.push_back(object.get());
    if (path) {
        paths_[object->path] = object.get();
        object_event("ubus.object.add", *object);
    }
    Body body;
    body.put_u32(UBUS_ATTR_OBJID, id);
    if (type && signature)
        body.put_u32(UBUS_ATTR_OBJTYPE, type->id);
    from.send({0, UBUS_MSG_DATA, header.seq, header.peer}, body.bytes());
    return UBUS_STATUS_OK;
}

int Bus::remove_object(Client &from, const Header &header, const Attributes &attrs) {
    if (!attrs.at[UBUS_ATTR_OBJID])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t id = attrs.u32(UBUS_ATTR_OBJID);
    Object *object = find(id);
    if (!object)
        return id && id <= UBUS_SYSTEM_OBJECT_MONITOR ? UBUS_STATUS_PERMISSION_DENIED : UBUS_STATUS_NOT_FOUND;
    if (object->owner != &from)
        return UBUS_STATUS_PERMISSION_DENIED;
    Body body;
    body.put_u32(UBUS_ATTR_OBJID, id);
    if (object->type && object->type->users == 1)
        body.put_u32(UBUS_ATTR_OBJTYPE, object->type->id);
    from.send({0, UBUS_MSG_DATA, header.seq, header.peer}, body.bytes());
    drop_object(object);
    return UBUS_STATUS_OK;
}

void Bus::tell_active(Object *object, bool active) {
    object->owner->send({0, UBUS_MSG_NOTIFY, ++object->seq, 0},
                        Body().put_u32(UBUS_ATTR_OBJID, object->id).put_u8(UBUS_ATTR_ACTIVE, active).bytes());
}

constexpr size_t subscription_cost = 64;

void Bus::drop_object(Object *object) {
    while (!object->targets.empty()) {
        Object *target = object->targets.back();
        object->targets.pop_back();
        remove_last(target->subscribers, object);
        if (target->subscribers.empty())
            tell_active(target, false);
    }
    bool had_subscribers = !object->subscribers.empty();
    while (!object->subscribers.empty()) {
        Object *subscriber = object->subscribers.back();
        object->subscribers.pop_back();
        remove_last(subscriber->targets, object);
        subscriber->cost -= subscription_cost;
        subscriber->owner->held -= subscription_cost;
        Body body;
        body.put_u32(UBUS_ATTR_OBJID, subscriber->id).put_u32(UBUS_ATTR_TARGET, object->id);
        subscriber->owner->send({0, UBUS_MSG_UNSUBSCRIBE, ++subscriber->seq, 0}, body.bytes());
    }
    if (had_subscribers)
        tell_active(object, false);
    if (!object->patterns.empty())
        listeners_.remove(object);
    if (object->has_path) {
        paths_.erase(object->path);
        object_event("ubus.object.remove", *object);
    }
    if (object->type && --object->type->users == 0)
        types_.erase(object->type->id);
    object->owner->held -= object->cost;
    remove_last(object->owner->objects, object);
    objects_.erase(object->id);
}

int Bus::invoke(Client &from, const Header &header, const Attributes &attrs, int fd) {
    const char *method = attrs.text(UBUS_ATTR_METHOD);
    if (!method || !attrs.at[UBUS_ATTR_OBJID])
        return UBUS_STATUS_INVALID_ARGUMENT;
    uint32_t id = attrs.u32(UBUS_ATTR_OBJID);
    switch (id) {
    case UBUS_SYSTEM_OBJECT_EVENT:
        return event_object(from, attrs);
    case UBUS_SYSTEM_OBJECT_ACL:
        return rules_object(from, header, attrs);
    case UBUS_SYSTEM_OBJECT_MONITOR:
        return monitor_object(from, attrs);
    }
    Object *object = find(id);
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->has_path && !access_.may_call(from.who, object->path, method))
        return UBUS_STATUS_PERMISSION_DENIED;
    Body body;
    body.put_u32(UBUS_ATTR_OBJID, id)
        .put_string(UBUS_ATTR_METHOD, method)
        .put_string(UBUS_ATTR_USER, from.who.user)
        .put_string(UBUS_ATTR_GROUP, from.who.group)
        .copy(UBUS_ATTR_DATA, attrs.at[UBUS_ATTR_DATA]);
    // The names of the caller may bring it over the limit; the owner could not read it.
    if (body.bytes().size() + 4 > max_message)
        return UBUS_STATUS_INVALID_ARGUMENT;
    object->owner->send({0, UBUS_MSG_INVOKE, header.seq, from.id}, body.bytes(), fd);
    return no_status;
}

void Bus::forward_answer(Client &from, const Header &header, const Attributes &attrs, std::string_view body, int fd) {
    Object *object = find(attrs.u32(UBUS_ATTR_OBJID));
    auto to = clients_.find(header.peer);
    unsigned needed = header.type == UBUS_MSG_STATUS ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA;
    if (object && object->owner == &from && attrs.at[needed] && to != clients_.end())
        to->second->send({header.version, header.type, header.seq, object->id}, body, fd);
}

int Bus::notify(Client &from, const Header &header, const Attributes &attrs) {
    const char *method = attrs.text(UBUS_ATTR_METHOD);
    if (!method || !attrs.at[UBUS_ATTR_OBJID])
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *object = find(attrs.u32(UBUS_ATTR_OBJID));
    if (!object)
        return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &from)
        return UBUS_STATUS_PERMISSION_DENIED;
    bool no_reply = attrs.at[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs.at[UBUS_ATTR_NO_REPLY]);
    if (!no_reply) {
        Body ids;
        for (auto it = object->subscribers.rbegin(); it != object->subscribers.rend(); ++it)
            if (ids.bytes().size() < max_message / 2) // libraries look at the first few only
                ids.put_u32(0, (*it)->id);
        Body answer;
        answer.put_u32(UBUS_ATTR_OBJID, object->id)
            .put(UBUS_ATTR_SUBSCRIBERS, ids.bytes())
            .put_u32(UBUS_ATTR_STATUS, UBUS_STATUS_OK);
        from.send({0, UBUS_MSG_STATUS, header.seq, header.peer}, answer.bytes());
    }
    for (auto it = object->subscribers.rbegin(); it != object->subscribers.rend(); ++it) {
        Body body;
        if (no_reply)
            body.put_u8(UBUS_ATTR_NO_REPLY, 1);
        body.put_u32(UBUS_ATTR_OBJID, (*it)->id)
            .put_string(UBUS_ATTR_METHOD, method)
            .put_string(UBUS_ATTR_USER, from.who.user)
            .put_string(UBUS_ATTR_GROUP, from.who.group)
            .copy(UBUS_ATTR_DATA, attrs.at[UBUS_ATTR_DATA]);
        (*it)->owner->send({0, UBUS_MSG_INVOKE, header.seq, from.id}, body.bytes());
    }
    return no_status;
}

bool Bus::may_subscribe(const Client &from, const Object &target) const {
    if (target.has_path)
        return access_.allowed(from.who, Access::Subscribe, target.path);
    const Credentials &a = from.who, &b = target.owner->who;
    return a.uid == b.uid || a.gid == b.gid;
}

int Bus::subscribe(Client &from, const Attributes &attrs, bool on) {
    if (!attrs.at[UBUS_ATTR_OBJID] || !attrs.at[UBUS_ATTR_TARGET])
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *subscriber = find(attrs.u32(UBUS_ATTR_OBJID));
    if (!subscriber)
        return UBUS_STATUS_NOT_FOUND;
    if (subscriber->owner != &from)
        return UBUS_STATUS_INVALID_ARGUMENT;
    Object *target = find(attrs.u32(UBUS_ATTR_TARGET));
    if (!target)
        return UBUS_STATUS_NOT_FOUND;
    if (!on) {
        auto it = std::find(target->subscribers.begin(), target->subscribers.end(), subscriber);
        if (it == target->subscribers.end())
            return UBUS_STATUS_NOT_FOUND;
        target->subscribers.erase(it);
        remove_last(subscriber->targets, target);
        subscriber->cost -= subscription_cost;
        from.held -= subscription_cost;
        if (target->subscribers.empty())
            tell_active(target, false);
        return UBUS_STATUS_OK;
    }
    if (target->owner == &from)
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!may_subscribe(from, *target))
        return UBUS_STATUS_NOT_FOUND;
    if (!charge(from, subscription_cost))
        return UBUS_STATUS_NO_MEMORY;
    subscriber->cost += subscription_cost;
    subscriber->targets.push_back(target);
    target->subscribers.push_back(subscriber);
    if (target->subscribers.size() == 1)
        tell_active(target, true);
    return UBUS_STATUS_OK;
}

int Bus::event_object(Client &from, const Attributes &attrs) {
    const char *method = attrs.text(UBUS_ATTR_METHOD);
    blob_attr *data = attrs.at[UBUS_ATTR_DATA];
    bool add = !strcmp(method, "register");
    if (!add && strcmp(method, "send"))
        return UBUS_STATUS_INVALID_COMMAND;
    if (!data)
        return UBUS_STATUS_INVALID_ARGUMENT;
    blob_attr *fields[2] = {};
    auto length = static_cast<unsigned>(blob_len(data));
    if (add) {
        constexpr blobmsg_policy policy[] = {{"object", BLOBMSG_TYPE_INT32}, {"pattern", BLOBMSG_TYPE_STRING}};
        blobmsg_parse(policy, 2, fields, data->data, length);
        if (!fields[0] || !fields[1])
            return UBUS_STATUS_INVALID_ARGUMENT;
        uint32_t id = blobmsg_get_u32(fields[0]);
        std::string pattern = blobmsg_get_string(fields[1]);
        if (id < UBUS_SYSTEM_OBJECT_MAX)
            return UBUS_STATUS_PERMISSION_DENIED;
        Object *object = find(id);
        if (!object)
            return UBUS_STATUS_NOT_FOUND;
        if (object->owner != &from || pattern.empty() || !access_.allowed(from.who, Access::Listen, pattern))
            return UBUS_STATUS_PERMISSION_DENIED;
        size_t cost = pattern.size() + 64;
        if (!charge(from, cost))
            return UBUS_STATUS_NO_MEMORY;
        object->cost += cost;
        if (object->patterns.empty())
            listeners_.push_back(object);
        object->patterns.push_back(std::move(pattern));
        return UBUS_STATUS_OK;
    }
    constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}};
    blobmsg_parse(policy, 2, fields, data->data, length);
    if (!fields[0] || !fields[1])
        return UBUS_STATUS_INVALID_ARGUMENT;
    std::string id = blobmsg_get_string(fields[0]);
    if (!id.compare(0, 5, "ubus.") || !access_.allowed(from.who, Access::Send, id))
        return UBUS_STATUS_PERMISSION_DENIED;
    send_event(&from, id, {static_cast<char *>(blobmsg_data(fields[1])), blobmsg_data_len(fields[1])});
    return UBUS_STATUS_OK;
}

void Bus::send_event(const Client *from, const std::string &id, std::string_view fields) {
    for (Object *listener : listeners_) {
        if (listener->owner == from || std::none_of(listener->patterns.begin(), listener->patterns.end(),
                                                    [&](const std::string &p) { return matches(p, id); }))
            continue;
        Body body;
        body.put_u32(UBUS_ATTR_OBJID, listener->id).put_string(UBUS_ATTR_METHOD, id).put(UBUS_ATTR_DATA, fields);
        listener->owner->send({0, UBUS_MSG_INVOKE, ++event_seq_, 0}, body.bytes());
    }
}

void Bus::object_event(const char *what, const Object &object) {
    send_event(nullptr, what, Body().field_u32("id", object.id).field_string("path", object.path).bytes());
}

int Bus::rules_object(Client &from, const Header &header, const Attributes &attrs) {
    if (strcmp(attrs.text(UBUS_ATTR_METHOD), "query") != 0)
        return UBUS_STATUS_INVALID_COMMAND;
    std::string rules;
    for (auto it = from.objects.rbegin(); it != from.objects.rend(); ++it)
        if ((*it)->has_path)
            rules += access_.describe((*it)->path);
    Body data, body;
    data.field_u32("seq", rule_seq_).field(BLOBMSG_TYPE_ARRAY, "acl", rules);
    body.put_u32(UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_ACL).put(UBUS_ATTR_DATA, data.bytes());
    from.send({0, UBUS_MSG_DATA, header.seq, header.peer}, body.bytes());
    return UBUS_STATUS_OK;
}

int Bus::monitor_object(Client &from, const Attributes &attrs) {
    if (from.who.uid != 0 || from.who.gid != 0)
        return UBUS_STATUS_PERMISSION_DENIED;
    if (!strcmp(attrs.text(UBUS_ATTR_METHOD), "add")) {
        from.monitor = 0;
        monitors_.insert(&from);
    } else if (!strcmp(attrs.text(UBUS_ATTR_METHOD), "remove")) {
        monitors_.erase(&from);
        from.monitor.reset();
    } else {
        return UBUS_STATUS_METHOD_NOT_FOUND;
    }
    return UBUS_STATUS_OK;
}

void Bus::reload_rules() {
    if (access_.load())
        send_event(nullptr, "ubus.acl.sequence", Body().field_u32("sequence", ++rule_seq_).bytes());
}

} // namespace tavrik

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

Bus::Bus(std::string rule_folder) : access_(std::move(rule_folder)) {
    rule_seq_ = access_.load();
}

Bus::~Bus() {
    while (!clients_.empty())
        remove_client(clients_.begin()->second.get());
}

template <class Map>
uint32_t Bus::new_id(const Map &taken) {
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

void Bus::end_subscription(Object *subscriber, Object *target) {
    remove_last(subscriber->targets, target);
    remove_last(target->subscribers, subscriber);
    subscriber->cost -= subscription_cost;
    subscriber->owner->held -= subscription_cost;
}

void Bus::drop_object(Object *object) {
    while (!object->targets.empty()) {
        Object *target = object->targets.back();
        end_subscription(object, target);
        if (target->subscribers.empty())
            tell_active(target, false);
    }
    bool had_subscribers = !object->subscribers.empty();
    while (!object->subscribers.empty()) {
        Object *subscriber = object->subscribers.back();
        end_subscription(subscriber, object);
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

} // namespace tavrik

// What passes between clients: calls, answers, notifications, events; and the daemon's own objects.
#include "bus.h"

#include <algorithm>

namespace tavrik {

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
        if (std::find(target->subscribers.begin(), target->subscribers.end(), subscriber) == target->subscribers.end())
            return UBUS_STATUS_NOT_FOUND;
        end_subscription(subscriber, target);
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
    if (!add && strcmp(method, "send") != 0)
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

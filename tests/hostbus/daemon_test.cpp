// The daemon, from the bytes of its socket.
#include "bus_fixture.h"

#include <sys/resource.h>
#include <thread>

using namespace hostbus;

namespace {

const Body ping(Body().field(BLOBMSG_TYPE_TABLE, "ping", ""));

Body named(const std::string &path) {
    return Body().put_string(UBUS_ATTR_OBJPATH, path).put(UBUS_ATTR_SIGNATURE, ping.bytes());
}
Body ids(uint32_t object, uint32_t target = 0) {
    Body body;
    if (object)
        body.put_u32(UBUS_ATTR_OBJID, object);
    return target ? body.put_u32(UBUS_ATTR_TARGET, target) : body;
}
Body method(uint32_t object) {
    return ids(object).put_string(UBUS_ATTR_METHOD, "m");
}

TEST_F(HostBus, StartsAndEndsInOrder) {
    const std::string other = folder + "/other";
    for (const auto &[option, value, code] :
         {std::tuple{"-x", other, 1}, {"-s", folder + "/no/where", 255}, {"-s", folder + std::string(120, 'x'), 255}})
        EXPECT_EQ(run_daemon(option, value)->end(), code) << option << value;
    for (int signal : {SIGTERM, SIGINT, SIGTERM, SIGTERM, SIGTERM}) { // as soon as there is a socket
        auto second = run_daemon("-s", other);
        EXPECT_TRUE(wait_until([&] { return std::filesystem::exists(other); }));
        EXPECT_EQ(second->end(signal), 0) << signal;
        EXPECT_FALSE(std::filesystem::exists(other));
    }
    // What an earlier daemon left there is in nobody's way, and everybody may connect.
    close(unix_socket(other, bind));
    auto second = run_daemon("-s", other);
    EXPECT_TRUE(wait_until([&] { return connects_to(other); }));
    EXPECT_EQ(std::filesystem::status(other).permissions(), std::filesystem::perms(0666));
    EXPECT_EQ(second->end(SIGTERM), 0);
}

TEST_F(HostBus, RunsOutOfDescriptors) {
    const rlimit few{30, 30};
    ASSERT_EQ(prlimit(daemon->pid, RLIMIT_NOFILE, &few, nullptr), 0);
    Peer first(path);
    {
        std::vector<std::unique_ptr<Peer>> many;
        for (int i = 0; i < 40; i++)
            many.push_back(std::make_unique<Peer>(path));
        const auto refused = std::count_if(many.begin(), many.end(), [](auto &peer) { return peer->greeting.empty(); });
        EXPECT_TRUE(refused > 9 && refused < 40) << refused << " turned away, not left waiting";
        EXPECT_EQ(first.ask(UBUS_MSG_PING), 0);
    }
    EXPECT_EQ(Peer(path).ask(UBUS_MSG_PING), 0);
}

// What a client library does not send.
TEST_F(HostBus, RefusesWhatIsWrong) {
    Peer me(path), other(path);
    const uint32_t target = me.add(named("target")), mine = me.add(), theirs = other.add(named("theirs")), none = 99999;
    const Body cut_short(u32(0xff00ffff) + std::string(ids(mine).bytes()));
    const auto listen = [](uint32_t object, const char *pattern) {
        const Body data = Body().field_u32("object", object).field_string("pattern", pattern);
        return ids(1).put_string(UBUS_ATTR_METHOD, "register").put(UBUS_ATTR_DATA, data.bytes());
    };
    const auto path_of = [](const char *name) { return Body().put_string(UBUS_ATTR_OBJPATH, name); };
    struct {
        int type, status;
        size_t before; // it
        std::vector<Body> requests;
    } const rows[] = {{UBUS_MSG_HELLO, 1, 0, {{}}},
                      {UBUS_MSG_MONITOR, 1, 0, {{}}},
                      {12, 1, 0, {{}}},
                      {200, 1, 0, {{}}},
                      {UBUS_MSG_REMOVE_OBJECT, 2, 0, {{}, Body().put(UBUS_ATTR_OBJID, "abc"), cut_short}},
                      {UBUS_MSG_REMOVE_OBJECT, 4, 0, {ids(none)}},
                      {UBUS_MSG_REMOVE_OBJECT, 6, 0, {ids(theirs), ids(2)}},
                      {UBUS_MSG_INVOKE, 2, 0, {ids(theirs), method(0)}},
                      {UBUS_MSG_INVOKE, 4, 0, {listen(none, "x")}},
                      {UBUS_MSG_INVOKE, 6, 0, {listen(theirs, "x"), listen(7, "x"), listen(mine, "")}},
                      {UBUS_MSG_SUBSCRIBE, 2, 0, {ids(mine), ids(theirs, target)}},
                      {UBUS_MSG_SUBSCRIBE, 4, 0, {ids(none, theirs)}},
                      {UBUS_MSG_NOTIFY, 2, 0, {ids(target)}},
                      {UBUS_MSG_NOTIFY, 4, 0, {method(none)}},
                      {UBUS_MSG_NOTIFY, 6, 0, {method(theirs).put_u8(UBUS_ATTR_NO_REPLY, 1)}},
                      {UBUS_MSG_ADD_OBJECT, 0, 1, {path_of("typeless")}},
                      {UBUS_MSG_LOOKUP, 0, 0, {path_of("typeless")}},
                      {UBUS_MSG_LOOKUP, 0, 1, {path_of("no").put_string(UBUS_ATTR_OBJPATH, "target")}},
                      {UBUS_MSG_LOOKUP, 0, 2, {{}, Body().put(UBUS_ATTR_OBJPATH, "open")}},
                      {UBUS_MSG_LOOKUP, 2, 0, {path_of("")}}};
    for (const auto &row : rows)
        for (const Body &request : row.requests) {
            EXPECT_EQ(me.ask(row.type, request), row.status) << "type " << row.type << " " << hex(request.bytes());
            EXPECT_EQ(me.before.size(), row.before);
        }
}

TEST_F(HostBus, PassesOnAnswersOfTheOwnerOnly) {
    Peer owner(path), caller(path);
    const uint32_t object = owner.add(named("o")), other = caller.add(), to = to_u32(caller.greeting.substr(4, 4));
    const Body good = ids(object).put_u32(UBUS_ATTR_STATUS, 5).put_u8(99, 1);
    for (const auto &[type, body, peer] : {std::tuple{UBUS_MSG_STATUS, good, 0u}, // as listeners answer events
                                           {UBUS_MSG_STATUS, good, 12345},
                                           {UBUS_MSG_STATUS, ids(object), to},
                                           {UBUS_MSG_DATA, good, to},
                                           {UBUS_MSG_STATUS, ids(other).put_u32(UBUS_ATTR_STATUS, 5), to},
                                           {UBUS_MSG_STATUS, good, to}})
        owner.write(frame(type, 7, peer, body.bytes()));
    owner.ask(UBUS_MSG_PING);
    EXPECT_EQ(hex(caller.next()), hex(frame(UBUS_MSG_STATUS, 7, object, good.bytes())));
    EXPECT_EQ(caller.ask(UBUS_MSG_PING), 0);
    EXPECT_EQ(caller.before.size(), 1u);
}

TEST_F(HostBus, MessageLimits) {
    for (uint32_t length : {0u, 3u, 1048577u, 0xffffffu}) {
        Peer peer(path);
        peer.write(unhex("0003000100000000") + u32(length));
        EXPECT_EQ(peer.next(), "") << length << ": closed as soon as the head is there";
    }
    Peer peer(path);
    const std::string largest = frame(UBUS_MSG_PING, 1, 0, std::string(1048572, 'x'));
    std::thread writer([&] { peer.write(largest); });
    EXPECT_EQ(peer.next().size(), largest.size());
    EXPECT_EQ(hex(peer.next()), "00010001000000000000000c0100000800000000");
    writer.join();
    for (char byte : unhex("070300020000000900000009") + "abcde") // as it came, in a body of no whole number of words
        peer.write({&byte, 1});
    EXPECT_EQ(hex(peer.next()), "0702000200000009000000096162636465");
    EXPECT_EQ(hex(peer.next()), "00010002000000090000000c0100000800000000");
    Peer(path).write(unhex("00030003000000000000000861"));
    // Answers to look-ups wait for their reader, however many.
    peer.add(named(std::string(1000, 'x')));
    for (int i = 0; i < 3000; i++)
        peer.write(frame(UBUS_MSG_LOOKUP, 2, 0, ""));
    for (int i = 0; i < 6000; i++)
        ASSERT_EQ(peer.next()[1], i % 2 ? UBUS_MSG_STATUS : UBUS_MSG_DATA) << i;
}

} // namespace

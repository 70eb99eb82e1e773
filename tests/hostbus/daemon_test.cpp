// The daemon, from the bytes of its socket.
#include "bus_fixture.h"

#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <thread>

using namespace hostbus;

namespace {

const std::string method_ping = std::string(Body().field(BLOBMSG_TYPE_TABLE, "ping", "").bytes());

Body ids(uint32_t object, uint32_t target) {
    Body body;
    if (object)
        body.put_u32(UBUS_ATTR_OBJID, object);
    return target ? body.put_u32(UBUS_ATTR_TARGET, target) : body;
}

// One line for each message: type, sender's or object's id as seen by the reader, and what matters of it.
std::vector<std::string> brief(const std::vector<Message> &messages) {
    std::vector<std::string> lines;
    for (const Message &m : messages)
        lines.push_back(std::to_string(m.type) + " " + std::to_string(m.seq) + " " + m.text(UBUS_ATTR_METHOD) +
                        hex(m.payload(UBUS_ATTR_ACTIVE)) + hex(m.payload(UBUS_ATTR_NO_REPLY)));
    return lines;
}
using Lines = std::vector<std::string>;

TEST_F(HostBus, BytesOnTheWire) {
    Peer owner(path), caller(path);
    std::string signature =
        "0600003c8200002c000568656c6c6f00850000100002696400000000000000058500001000036d7367000000000"
        "000038200000c000470696e670000";
    auto ask = [](Peer &peer, const std::string &bytes) { // gets the first answer
        peer.write(unhex(bytes));
        return hex(peer.next().all);
    };
    EXPECT_EQ(hex(owner.greeting), "00000000" + hex(u32(owner.id)) + "00000004");
    for (uint32_t id : {owner.id, __builtin_bswap32(owner.id)})
        EXPECT_GT(id, 1u);
    std::string added = ask(owner, "00060001000000000000004c0200000964656d6f00000000" + signature);
    std::string object = added.substr(32, 8), type = added.substr(48, 8), name = "030000082f7a1075";
    name.replace(8, 8, object);
    EXPECT_EQ(added, "000200010000000000000014" + name + "05000008" + type);
    EXPECT_EQ(hex(owner.next().all), "00010001000000000000000c0100000800000000");
    EXPECT_EQ(ask(caller, "0004000100000000000000100200000964656d6f00000000"),
              "00020001000000000000005c0200000964656d6f00000000" + name + "05000008" + type + signature);
    EXPECT_EQ(hex(caller.next().all), "00010001000000000000000c0100000800000000");

    std::string client = hex(u32(caller.id)), user = getpwuid(getuid())->pw_name, group = getgrgid(getgid())->gr_name;
    std::string data = "07000024850000100002696400000000000000078300000f00036d736700000068690000";
    std::string names = hex(Body().put_string(UBUS_ATTR_USER, user).put_string(UBUS_ATTR_GROUP, group).bytes());
    caller.write(unhex("00050002" + object + "0000003c" + name + "0400000a68656c6c6f000000" + data));
    EXPECT_EQ(hex(owner.next().all), "00050002" + client + hex(u32(0x3c + unsigned(names.size()) / 2)) + name +
                                         "0400000a68656c6c6f000000" + names + data);
    std::string reply =
        "00000034" + name + "070000288700000d00026f6b00000000010000008300001100037478740000006162636400000000";
    owner.write(unhex("00020002" + client + reply + "00010002" + client + "000000140100000800000003" + name));
    EXPECT_EQ(hex(caller.next().all), "00020002" + object + reply);
    EXPECT_EQ(hex(caller.next().all), "00010002" + object + "000000140100000800000003" + name);

    std::string listener = hex(u32(owner.add()));
    EXPECT_EQ(
        ask(owner, "00050002000000010000004c03000008000000010400000d726567697374657200000000070000308500001400066f"
                   "626a65637400000000" +
                       listener + "8300001600077061747465726e000000666f6f2e2a000000"),
        "00010002000000010000000c0100000800000000");
    EXPECT_EQ(ask(caller,
                  "00050001000000010000004803000008000000010400000973656e6400000000070000308300001400026964000000"
                  "00666f6f2e626172008200001800046461746100008500000c0001610000000001"),
              "00010001000000010000000c0100000800000000");
    EXPECT_EQ(hex(owner.next().all), "00050001000000000000002803000008" + listener +
                                         "0400000c666f6f2e62617200070000108500000c0001610000000001");
    owner.write(unhex("0001000100000000000000140100000800000000"
                      "03000008" +
                      listener)); // goes nowhere

    std::string subscriber = hex(u32(caller.add()));
    EXPECT_EQ(ask(caller, "00080009000000000000001403000008" + subscriber + "08000008" + object),
              "00010009000000000000000c0100000800000000");
    EXPECT_EQ(hex(owner.next().all), "000a0001"
                                     "00000000"
                                     "00000014" +
                                         name + "0900000501000000");
    std::string news = "0400000970696e6700000000", x = "070000108500000c0001780000000005";
    owner.write(unhex("000a0003" + object + "00000030" + name + news + x + "0a00000501000000"));
    EXPECT_EQ(hex(caller.next().all), "00050003" + hex(u32(owner.id)) + hex(u32(0x30 + unsigned(names.size()) / 2)) +
                                          "0a0000050100000003000008" + subscriber + news + names + x);
}

TEST_F(HostBus, StartsAndEndsInOrder) {
    struct {
        const char *option;
        std::string value;
        int code;
    } const rows[] = {{"-x", "", 1}, {"-s", folder + "/no/where", 255}, {"-s", folder + std::string(120, 'x'), 255}};
    for (const auto &row : rows)
        EXPECT_EQ(run_daemon(row.option, row.value)->end(), row.code) << row.option << row.value;
    std::string other = folder + "/other";
    for (int signal : {SIGTERM, SIGINT, SIGTERM, SIGTERM, SIGTERM}) { // as soon as there is a socket
        auto second = run_daemon("-s", other);
        for (int64_t end = now_ms() + ceiling_ms; !std::filesystem::exists(other) && now_ms() < end;)
            usleep(100);
        EXPECT_EQ(second->end(signal), 0) << signal;
        EXPECT_FALSE(std::filesystem::exists(other));
    }
    // What an earlier daemon left there is in nobody's way, and everybody may connect.
    close(listen_at(other));
    auto second = run_daemon("-s", other);
    int fd = -1;
    for (int64_t end = now_ms() + ceiling_ms; (fd = connect_to(other)) < 0 && now_ms() < end;)
        usleep(1000);
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(std::filesystem::status(other).permissions(), std::filesystem::perms(0666));
    EXPECT_EQ(second->end(SIGTERM), 0);
}

TEST_F(HostBus, RunsOutOfDescriptors) {
    rlimit few{30, 30};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    Peer first(path);
    uint32_t object = first.add("first", Body(method_ping));
    {
        std::vector<std::unique_ptr<Peer>> many;
        size_t refused = 0;
        for (int i = 0; i < 40; i++) {
            many.push_back(std::make_unique<Peer>(path));
            refused += many.back()->id == 0;
        }
        EXPECT_GT(refused, 9u) << "turned away, not left waiting";
        EXPECT_LT(refused, 40u);
        EXPECT_EQ(first.ask(UBUS_MSG_PING), 0);
    }
    Peer later(path);
    EXPECT_EQ(later.ask(UBUS_MSG_LOOKUP), 0);
    EXPECT_EQ(later.before.at(0).u32(UBUS_ATTR_OBJID), object);
}

TEST_F(HostBus, LooksUpByPathInOrder) {
    Peer owner(path), asker(path);
    EXPECT_EQ(asker.ask(UBUS_MSG_LOOKUP), 0) << "empty bus";
    for (const char *name : {"b", "a.y", "a.x", "a"})
        owner.add(name, Body(method_ping));
    EXPECT_EQ(owner.ask(UBUS_MSG_ADD_OBJECT, Body().put_string(UBUS_ATTR_OBJPATH, "typeless")), 0);
    EXPECT_EQ(owner.ask(UBUS_MSG_ADD_OBJECT, Body().put_string(UBUS_ATTR_OBJPATH, "a")), 2) << "path taken";
    struct {
        const char *pattern;
        Lines paths;
        int status;
    } const rows[] = {{"a", {"a"}, 0},
                      {"a.*", {"a.x", "a.y"}, 0},
                      {"*", {"a", "a.x", "a.y", "b"}, 0},
                      {"typeless", {}, 0},
                      {"nosuch", {}, 4},
                      {"no*", {}, 4},
                      {"a*x", {}, 4},
                      {"", {}, 2},
                      {nullptr, {"a", "a.x", "a.y", "b"}, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern ? row.pattern : "all");
        EXPECT_EQ(asker.ask(UBUS_MSG_LOOKUP, row.pattern ? Body().put_string(UBUS_ATTR_OBJPATH, row.pattern) : Body()),
                  row.status);
        Lines found;
        for (const Message &m : asker.before)
            found.push_back(m.text(UBUS_ATTR_OBJPATH));
        EXPECT_EQ(found, row.paths);
    }
    for (int i = 0; i < 3000; i++) // more than the daemon keeps for a reader
        asker.send(UBUS_MSG_LOOKUP);
    int answers[2] = {};
    while (answers[0] < 3000 && (asker.last = asker.next()).type >= 0)
        answers[asker.last.type == UBUS_MSG_DATA]++;
    EXPECT_EQ(answers[1], 4 * 3000);
}

TEST_F(HostBus, RefusesWhatIsWrong) {
    Peer me(path), other(path);
    uint32_t named = me.add("named", Body(method_ping)), mine = me.add(), theirs = other.add("theirs"), none = 99999;
    auto call = [](uint32_t object, const char *method) {
        return ids(object, 0).put(UBUS_ATTR_METHOD, std::string_view(method, method ? strlen(method) + 1 : 0));
    };
    struct {
        int type;
        Body body;
        int status;
    } const rows[] = {
        {UBUS_MSG_HELLO, {}, 1},
        {UBUS_MSG_MONITOR, {}, 1},
        {12, {}, 1},
        {200, {}, 1},
        {UBUS_MSG_REMOVE_OBJECT, {}, 2},
        {UBUS_MSG_REMOVE_OBJECT, ids(none, 0), 4},
        {UBUS_MSG_REMOVE_OBJECT, ids(theirs, 0), 6},
        {UBUS_MSG_REMOVE_OBJECT, ids(2, 0), 6},
        {UBUS_MSG_INVOKE, ids(theirs, 0), 2},
        {UBUS_MSG_INVOKE, call(0, "m"), 2},
        {UBUS_MSG_INVOKE, call(none, "m"), 4},
        {UBUS_MSG_INVOKE, call(1, "nosuch"), 1},
        {UBUS_MSG_INVOKE, call(1, "send"), 2},
        {UBUS_MSG_INVOKE, call(2, "nosuch"), 1},
        {UBUS_MSG_INVOKE, call(2, "query"), 0},
        {UBUS_MSG_SUBSCRIBE, ids(mine, 0), 2},
        {UBUS_MSG_SUBSCRIBE, ids(none, theirs), 4},
        {UBUS_MSG_SUBSCRIBE, ids(theirs, named), 2},
        {UBUS_MSG_SUBSCRIBE, ids(mine, none), 4},
        {UBUS_MSG_SUBSCRIBE, ids(mine, 1), 4},
        {UBUS_MSG_SUBSCRIBE, ids(mine, named), 2},
        {UBUS_MSG_UNSUBSCRIBE, ids(mine, theirs), 4},
        {UBUS_MSG_NOTIFY, ids(named, 0), 2},
        {UBUS_MSG_NOTIFY, call(none, "m"), 4},
        {UBUS_MSG_NOTIFY, call(theirs, "m").put_u8(UBUS_ATTR_NO_REPLY, 1), 6},
    };
    for (const auto &row : rows)
        EXPECT_EQ(me.ask(row.type, row.body), row.status) << "type " << row.type << " " << hex(row.body.bytes());
    for (auto [object, pattern, status] :
         {std::tuple{mine, "x", 0}, {mine, "", 6}, {7u, "x", 6}, {none, "x", 4}, {theirs, "x", 6}})
        EXPECT_EQ(me.listen(object, pattern), status) << object << pattern;
    EXPECT_EQ(me.event("ubus.x"), 6);
    EXPECT_EQ(me.ask(UBUS_MSG_PING, Body("abc"), 9), 0);
    EXPECT_EQ(hex(me.before.at(0).all).substr(8), "0000000900000007616263");
    EXPECT_EQ(me.ask(UBUS_MSG_REMOVE_OBJECT, ids(named, 0)), 0);
    EXPECT_EQ(me.ask(UBUS_MSG_REMOVE_OBJECT, ids(named, 0)), 4);
}

TEST_F(HostBus, PassesOnAnswersOfTheOwnerOnly) {
    Peer owner(path), caller(path);
    uint32_t object = owner.add("o", Body(method_ping)), other = caller.add();
    Body good = ids(object, 0).put_u32(UBUS_ATTR_STATUS, 5).put_u8(99, 1);
    owner.send(UBUS_MSG_STATUS, good, 0); // as listeners answer events
    owner.send(UBUS_MSG_STATUS, good, 12345);
    owner.send(UBUS_MSG_STATUS, ids(object, 0), caller.id);
    owner.send(UBUS_MSG_DATA, good, caller.id);
    owner.send(UBUS_MSG_STATUS, ids(other, 0).put_u32(UBUS_ATTR_STATUS, 5), caller.id);
    owner.send(UBUS_MSG_STATUS, good, caller.id);
    owner.drain();
    auto got = caller.drain();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].peer, object);
    EXPECT_EQ(got[0].body, good.bytes());

    // A descriptor goes along with calls and statuses, with nothing else.
    Body call = ids(object, 0).put_string(UBUS_ATTR_METHOD, "ping");
    for (auto [type, body, passes] : {std::tuple{UBUS_MSG_INVOKE, call, true}, {UBUS_MSG_PING, Body(), false}}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        caller.send(type, body, object, ends[1]);
        close(ends[1]);
        Message m = (passes ? owner : caller).next();
        EXPECT_EQ(owner.received_fd >= 0, passes);
        if (passes)
            close(owner.received_fd);
        owner.received_fd = -1;
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), 0) << "no copy is left anywhere";
        close(ends[0]);
    }
}

TEST_F(HostBus, SubscribersComeAndGo) {
    Peer owner(path), one(path), two(path);
    uint32_t target = owner.add("t", Body(method_ping)), a = one.add(), b = two.add();
    EXPECT_EQ(one.ask(UBUS_MSG_SUBSCRIBE, ids(a, target)), 0);
    EXPECT_EQ(two.ask(UBUS_MSG_SUBSCRIBE, ids(b, target)), 0);
    EXPECT_EQ(two.ask(UBUS_MSG_SUBSCRIBE, ids(b, target)), 0);
    EXPECT_EQ(brief(owner.drain()), Lines{"10 1 01"});
    Body note = ids(target, 0).put_string(UBUS_ATTR_METHOD, "n").put(UBUS_ATTR_DATA, "");
    EXPECT_EQ(owner.ask(UBUS_MSG_NOTIFY, note, target), 0);
    EXPECT_EQ(hex(owner.last.payload(UBUS_ATTR_SUBSCRIBERS)),
              hex(Body().put_u32(0, b).put_u32(0, b).put_u32(0, a).bytes()));
    unsigned seq = owner.seq;
    owner.send(UBUS_MSG_NOTIFY, Body(note).put_u8(UBUS_ATTR_NO_REPLY, 1), target);
    EXPECT_TRUE(owner.drain().empty()) << "no reply was asked for";
    std::string first = "5 " + std::to_string(seq) + " n", second = "5 " + std::to_string(seq + 1) + " n01";
    EXPECT_EQ(brief(one.drain()), (Lines{first, second}));
    auto got = two.drain();
    EXPECT_EQ(brief(got), (Lines{first, first, second, second}));
    EXPECT_EQ(got[0].peer, owner.id);
    one.send(UBUS_MSG_STATUS, ids(a, 0).put_u32(UBUS_ATTR_STATUS, 7), owner.id);
    EXPECT_EQ(owner.next().peer, a);

    EXPECT_EQ(one.ask(UBUS_MSG_UNSUBSCRIBE, ids(a, target)), 0);
    two.hang_up();
    EXPECT_EQ(hex(owner.next().payload(UBUS_ATTR_ACTIVE)), "00") << "the last one died";
    EXPECT_EQ(one.ask(UBUS_MSG_SUBSCRIBE, ids(a, target)), 0);
    owner.hang_up();
    Message gone = one.next();
    EXPECT_EQ(gone.type, UBUS_MSG_UNSUBSCRIBE);
    EXPECT_EQ(gone.u32(UBUS_ATTR_TARGET), target);
}

TEST_F(HostBus, EventsAndMonitor) {
    Peer sender(path), listener(path);
    uint32_t a = listener.add(), b = listener.add();
    for (const char *pattern : {"foo.*", "foo.bar", "ubus.object.*"})
        ASSERT_EQ(listener.listen(a, pattern), 0);
    ASSERT_EQ(listener.listen(b, "foo.bar"), 0);
    EXPECT_EQ(listener.event("foo.bar"), 0);
    EXPECT_TRUE(listener.drain().empty()) << "not its own";
    for (const char *name : {"foo", "foo.bar", "foo.x", "bar"})
        EXPECT_EQ(sender.event(name), 0);
    EXPECT_EQ(brief(listener.drain()), (Lines{"5 1 foo.bar", "5 2 foo.bar", "5 3 foo.x"}));
    listener.add("own");
    EXPECT_EQ(listener.before.at(0).text(UBUS_ATTR_METHOD), "ubus.object.add") << "before its own answer";
    { Peer(path).add("brief"); }
    EXPECT_EQ(listener.next().text(UBUS_ATTR_METHOD), "ubus.object.add");
    EXPECT_EQ(listener.next().text(UBUS_ATTR_METHOD), "ubus.object.remove");

    if (getuid() != 0 || getgid() != 0)
        GTEST_SKIP() << "only root may monitor";
    Peer monitor(path);
    EXPECT_EQ(monitor.invoke(3, "add", {}), 0);
    EXPECT_EQ(monitor.before.at(0).type, UBUS_MSG_MONITOR) << "of that status, and before it";
    sender.write(frame(UBUS_MSG_PING, 300, 7, "abc"));
    for (auto [type, body] :
         {std::pair{UBUS_MSG_PING, "616263"}, {UBUS_MSG_DATA, "616263"}, {UBUS_MSG_STATUS, "0100000800000000"}}) {
        Message m = monitor.next();
        Body report;
        report.put_u32(0, sender.id).put_u32(1, 7).put_u32(3, 300).put_u32(4, type).put_u8(2, type != UBUS_MSG_PING);
        EXPECT_EQ(hex(m.body), hex(report.put(5, unhex(body)).bytes())) << type;
    }
    EXPECT_EQ(monitor.invoke(3, "remove", {}), 0);
    EXPECT_EQ(monitor.invoke(3, "nosuch", {}), 3);
}

TEST_F(HostBus, MessageLimits) {
    for (uint32_t length : {0u, 3u, 1048577u, 0xffffffu}) {
        Peer peer(path);
        peer.write(unhex("0003000100000000") + u32(length));
        EXPECT_EQ(peer.next().type, -2) << length << ": closed as soon as the head is there";
    }
    Peer peer(path), odd(path);
    std::thread writer([&] { peer.write(frame(UBUS_MSG_PING, 1, 0, std::string(1048572, 'x'))); });
    EXPECT_EQ(peer.next().body.size(), 1048572u);
    EXPECT_EQ(peer.next().type, UBUS_MSG_STATUS);
    writer.join();
    for (char byte : frame(UBUS_MSG_PING, 2, 0, "abcde"))
        peer.write({&byte, 1});
    EXPECT_EQ(peer.next().body, "abcde");
    EXPECT_EQ(peer.next().type, UBUS_MSG_STATUS);
    peer.write(frame(UBUS_MSG_PING, 3, 0, "half").substr(0, 14));
    peer.hang_up();
    // Attributes of every wrong shape: whatever the answer is, the next request gets its own.
    unsigned random = 1;
    for (int i = 0; i < 3000; i++) {
        std::string body;
        for (unsigned n = 0; n < (random >> 16) % 12; n++) {
            random = random * 1103515245 + 12345;
            body += u32((random >> 16) % 15 << 24 | (random >> 8) % 40 | (random & 1) << 31) + u32(random % 5);
        }
        odd.write(frame(int(i % 12), 1, random % 4, body));
        random = random * 1103515245 + 12345;
    }
    odd.seq = 0x7000;
    EXPECT_EQ(odd.ask(UBUS_MSG_PING), 0);
}

TEST_F(HostBus, SleepingReaderLosesMessagesAndHarmsNobody) {
    Peer sender(path), sleeper(path);
    ASSERT_EQ(sleeper.listen(sleeper.add(), "*"), 0);
    for (uint32_t i = 0; i < 4000; i++)
        ASSERT_EQ(sender.event("e", Body().field_u32("n", i).field_string("p", std::string(1000, 'x'))), 0) << i;
    auto number = [](const Message &m) { return hex(m.payload(UBUS_ATTR_DATA)).substr(16, 8); };
    uint32_t read = 0;
    for (Message m; (m = sleeper.next(200)).type >= 0; read++)
        ASSERT_EQ(number(m), hex(u32(read))) << "in order, none between";
    EXPECT_GT(read, 900u);
    EXPECT_LT(read, 4000u);
    EXPECT_EQ(sender.event("e", Body().field_u32("n", 9999)), 0);
    EXPECT_EQ(number(sleeper.next()), hex(u32(9999)));
    std::ifstream statm("/proc/" + std::to_string(daemon->pid()) + "/statm");
    size_t pages = 0;
    statm >> pages >> pages;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
    EXPECT_LT(pages * size_t(sysconf(_SC_PAGESIZE)), 30u << 20);
#endif
}

// Runs a check as another user; the credentials of a connection are those of the moment of connecting.
template <class Check>
void as_user(uid_t uid, gid_t gid, Check check) {
    ASSERT_EQ(setegid(gid), 0);
    ASSERT_EQ(seteuid(uid), 0);
    check();
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(setegid(0), 0);
}

TEST_F(HostBus, AccessByUser) {
    const passwd *nobody = getpwnam("nobody");
    const group *nogroup = getgrnam("nogroup");
    if (getuid() != 0 || !nobody || !nogroup || seteuid(nobody->pw_uid) != 0 || seteuid(0) != 0)
        GTEST_SKIP() << "needs root, and a second user to become";
    Peer owner(path);
    uint32_t object = owner.add("o", Body().field(BLOBMSG_TYPE_TABLE, "yes", "").field(BLOBMSG_TYPE_TABLE, "no", ""));
    as_user(nobody->pw_uid, 54321, [&] { EXPECT_EQ(Peer(path).id, 0u) << "a group without name"; });
    as_user(54321, nogroup->gr_gid, [&] { EXPECT_EQ(Peer(path).id, 0u) << "a user without name"; });

    auto check = [&](bool ruled) {
        SCOPED_TRACE(ruled ? "with a rule" : "without rules");
        as_user(nobody->pw_uid, nogroup->gr_gid, [&] {
            Peer guest(path);
            uint32_t mine = guest.add();
            EXPECT_EQ(guest.ask(UBUS_MSG_LOOKUP), 0);
            EXPECT_EQ(guest.before.size(), ruled ? 1u : 0u);
            for (const Message &m : guest.before)
                EXPECT_EQ(hex(m.payload(UBUS_ATTR_SIGNATURE)), "8200000c0003796573000000");
            EXPECT_EQ(guest.invoke(object, "no", {}), 6);
            EXPECT_EQ(guest.listen(mine, "foo.x"), ruled ? 0 : 6);
            EXPECT_EQ(guest.listen(mine, "bar"), 6);
            EXPECT_EQ(guest.event("foo"), ruled ? 0 : 6);
            EXPECT_EQ(guest.ask(UBUS_MSG_ADD_OBJECT, Body().put_string(UBUS_ATTR_OBJPATH, "mine")), ruled ? 0 : 2);
            EXPECT_EQ(guest.ask(UBUS_MSG_ADD_OBJECT, Body().put_string(UBUS_ATTR_OBJPATH, "x")), 2);
            EXPECT_EQ(guest.ask(UBUS_MSG_SUBSCRIBE, ids(mine, object)), ruled ? 0 : 4);
            EXPECT_EQ(guest.invoke(3, "add", {}), 6);
            EXPECT_EQ(guest.ask(UBUS_MSG_PING), 0);
        });
    };
    check(false);
    auto rule = [&](const char *name, mode_t mode) {
        std::ofstream(folder + "/rules/" + name)
            << R"({"user": "nobody", "access": {"o*": {"methods": ["yes", 1]}}, "publish": ["mine"],
                   "subscribe": ["*"], "listen": ["foo.*"], "send": ["foo"]})";
        chmod((folder + "/rules/" + name).c_str(), mode);
        owner.drain();
        ASSERT_EQ(owner.listen(owner.add(), "ubus.acl.sequence"), 0);
        kill(daemon->pid(), SIGHUP);
        EXPECT_EQ(owner.next().text(UBUS_ATTR_METHOD), "ubus.acl.sequence");
    };
    rule("open.json", 0666);
    check(false);
    rule("good.json", 0644);
    check(true);

    // By group, the main one or another.
    std::filesystem::remove(folder + "/rules/open.json");
    std::ofstream(folder + "/rules/good.json")
        << R"({"group": "daemon", "access": {"o": {"methods": ["*"], "acl": {"n": 1}}}, "send": ["*"]})";
    owner.drain();
    kill(daemon->pid(), SIGHUP);
    EXPECT_EQ(owner.next().text(UBUS_ATTR_METHOD), "ubus.acl.sequence");
    owner.drain();
    const gid_t own_group = nogroup->gr_gid, groups[] = {getgrnam("daemon")->gr_gid};
    for (bool member : {false, !getenv("TAVRIK_EMULATOR")}) { // an emulator does not tell the other groups
        ASSERT_EQ(setgroups(member, groups), 0);
        as_user(nobody->pw_uid, own_group, [&] { EXPECT_EQ(Peer(path).event("any"), member ? 0 : 6); });
    }
    ASSERT_EQ(setgroups(0, groups), 0);
    as_user(nobody->pw_uid, groups[0], [&] { EXPECT_EQ(Peer(path).event("any"), 0); });
    // The owner is told what its objects' rules say.
    EXPECT_EQ(owner.invoke(2, "query", {}), 0);
    Body acl, rules;
    acl.field_string("obj", "o").field_string("group", "daemon");
    acl.field(BLOBMSG_TYPE_TABLE, "acl", Body().field_u32("n", 1).bytes());
    rules.field(BLOBMSG_TYPE_TABLE, "", acl.bytes());
    std::string data = owner.before.at(0).payload(UBUS_ATTR_DATA);
    std::string array(Body().field(BLOBMSG_TYPE_ARRAY, "acl", rules.bytes()).bytes());
    EXPECT_EQ(hex(data.substr(data.size() - array.size())), hex(array));
}

} // namespace

// The client library against its own daemon, and both together.
#include "bus_fixture.h"

#include <grp.h>
#include <pwd.h>
#include <thread>

using namespace hostbus;

namespace {

class Client : public HostBus {};

TEST_F(Client, Calls) {
    start_service();
    run({{R"(a invoke service.echo {"n":5})", R"(a {"n":5}; 0)"},
         {"a invoke service.three", R"(a {"n":0}; a {"n":1}; a {"n":2}; 0)"},
         {"a invoke service.none service.fail demo.nosuch 99999.echo", "0 -5 3 4"},
         {"a invoke 1.nosuch 1.send 2.nosuch 3.nosuch", "1 2 1 3"},
         {"a invoke service.later", R"(a {"late":300}; 77)"},
         {"a invoke 2.query", R"(a {"seq":0,"acl":[]}; 0)"},
         {"a add mine", "0"},
         {"a briefly mine.ping", "a ping root {}; 7"},                         // its own object
         {R"(a briefly service.poke {"n":8})", R"(a ping root {"n":8}; 7)"}}); // called while it waits
    Node &a = node('a');
    const uint32_t id = id_of(a, "service");
    ubus_add_uloop(&a);
    EXPECT_EQ(invoke(a, "service.poke", "", 100), 7);
    EXPECT_TRUE(trail.empty()) << "it is called by the loop";
    EXPECT_TRUE(wait_until([] { return uloop_run_timeout(10), !trail.empty(); }));
    uloop_fd_delete(&a.sock);

    for (int limit : {-1, 1, 20, 300, 2500}) {
        const int64_t start = now_ms();
        EXPECT_EQ(invoke(a, "service.silent", "", limit), 7);
        EXPECT_GE(now_ms() - start, limit - 5);
        EXPECT_LT(now_ms() - start, ceiling_ms);
    }
    EXPECT_EQ(ubus_invoke(&a, id, nullptr, nullptr, nullptr, nullptr, 1000), 2);
    EXPECT_EQ(ubus_send_event(&a, "e", nullptr), 0);
    EXPECT_EQ(invoke(a, "service.none", R"({"big":")" + std::string(1000000, 'x') + "\"}", ceiling_ms), 0);
    EXPECT_EQ(invoke(a, "service.none", R"({"big":")" + std::string(1048576, 'x') + "\"}", ceiling_ms), 2);
    EXPECT_STREQ(ubus_strerror(7), "Request timed out");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
    run({{"a briefly service.remove", "7"}, {"a invoke service.none", "4"}}); // nobody tells the caller
    start_service();
    run({{"a briefly service.die", "7"}});
}

TEST_F(Client, Requests) {
    start_service();
    Node &a = node('a');
    const uint32_t id = id_of(a, "service");
    ubus_request aborted, *freed = new ubus_request;
    call(&a, aborted, id, "three", nullptr);
    ubus_abort_request(&a, &aborted);
    ubus_abort_request(&a, &aborted);
    ubus_invoke_async(&a, id, "three", nullptr, &aborted); // never listed: its answers are dropped
    // One callback aborts its request and frees it, another starts it again, a third calls and waits.
    call(&a, *freed, id, "three", nullptr);
    freed->data_cb = [](ubus_request *req, int, blob_attr *msg) {
        on_data(req, 0, msg);
        ubus_abort_request(req->ctx, req);
        delete req;
    };
    call(&a, a.req, id, "none", nullptr);
    a.req.complete_cb = [](ubus_request *req, int status) {
        on_complete(req, status);
        call(req->ctx, *req, req->peer, "three", nullptr);
        req->data_cb = [](ubus_request *r, int, blob_attr *msg) {
            on_data(r, 0, msg);
            r->data_cb = on_data;
            note(r->ctx, "inner " + std::to_string(ubus_invoke(r->ctx, r->peer, "none", nullptr, nullptr, nullptr, 0)));
        };
    };
    ASSERT_TRUE(pump(7));
    EXPECT_EQ(seen(), R"(a {"n":0}; a end 0; a {"n":0}; a inner 0; a {"n":1}; a {"n":2}; a end 0)");

    // Those that are listed go on during a wait, after which there is one message for each event.
    call(&a, a.req, id, "three", nullptr);
    EXPECT_EQ(invoke(a, "service.none", "", ceiling_ms), 0);
    EXPECT_EQ(trail.size(), 4u);
    call(&a, a.req, id, "three", nullptr);
    usleep(200000);
    ubus_handle_event(&a);
    EXPECT_EQ(trail.size(), 5u);
    EXPECT_TRUE(pump(8));

    // Descriptors both ways.
    int ends[2];
    char byte = 0;
    seen();
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(call(&a, a.req, id, "fd", nullptr, ends[1]), 0);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1) << "closed once it is sent";
    a.req.fd_cb = [](ubus_request *req, int fd) {
        note(req->ctx, fcntl(fd, F_GETFD) == FD_CLOEXEC && close(fd) == 0 ? "descriptor" : "none");
    };
    ASSERT_TRUE(pump(2));
    EXPECT_EQ(seen(), "a descriptor; a end 0");
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(read(ends[0], &byte, 1), 0) << "no copy is left anywhere";
    close(ends[0]);
}

TEST_F(Client, DaemonDies) {
    start_service();
    run({{"b add own", "0"},
         {"c call own.silent", "0; b silent root {}"},
         {"a call service.silent", "0"},
         {"a invoke service.kill", "a end 7; a lost; 10; b lost; c end 7; c lost"},
         {"a send x", "2"},
         {"a reconnect " + folder + "/nothing", "10"}});
    EXPECT_EQ(ubus_connect((folder + std::string(120, 'x')).c_str()), nullptr);
    // SIGPIPE is the program's to ignore, which connecting does for it.
    Child careless([&] { return signal(SIGPIPE, SIG_DFL), ubus_send_event(&node('b'), "x", nullptr); });
    EXPECT_EQ(careless.end(), -SIGPIPE);
    daemon->end();
    start_daemon();
}

TEST_F(Client, ObjectsAndEvents) {
    Peer raw(path);
    EXPECT_EQ(raw.ask(UBUS_MSG_LOOKUP), 0) << "empty bus";
    raw.add(Body().put_string(UBUS_ATTR_OBJPATH, "typeless"));
    run({{"b listen ubus.object.* foo.* foo.bar", "0 0 0"},
         {"a add demo a.y a.x", "0 0 0; b ubus.object.add; b ubus.object.add; b ubus.object.add"},
         {"a add demo", "2"},
         {"b add demo", "2"},
         {"b lookup demo", "b demo; 0"},
         {"b lookup a.*", "b a.x; b a.y; 0"},
         {"b lookup *", "b a.x; b a.y; b demo; 0"},
         {"b lookup", "b a.x; b a.y; b demo; 0"},
         {"b lookup typeless nothing no* a*x", "0 4 4 4"},
         {"a add ~x", "0"}, // without type, so without path
         {"a remove ~x ~x", "0 4"},
         {"a remove a.x", "0; b ubus.object.remove"},
         {"b add own", "b ubus.object.add; 0"},
         {"b send foo.bar", "0"},
         {"a send foo bar ubus.x", "0 0 6"},
         {R"(a send foo.bar foo.x {"n":3})", R"(0 0; b foo.bar {"n":3}; b foo.x {"n":3})"}});
    const uint32_t before = id_of(node('a'), "own");
    ubus_add_uloop(&node('b'));
    run({{"b reconnect " + path, "0"}});
    EXPECT_FALSE(node('b').sock.registered) << "not in the loop again";
    EXPECT_NE(id_of(node('a'), "own"), before);
    EXPECT_EQ(ubus_register_event_handler(&node('b'), &node('b').events, nullptr), 2);
    wired = true; // what comes to it is handled as an event, not in a look-up
    run({{R"(a call own.echo {"n":5})", R"(0; a {"n":5}; a end 0; b echo root {"n":5})"}});
    wired = false;
    run({{"a send foo.bar", "0"}, // patterns are gone
         {"b listen foo.*", "0"},
         {"a send foo.bar", "0; b foo.bar {}"}});
}

TEST_F(Client, SubscribersComeAndGo) {
    run({{"a add t", "0"},
         {"b register", "0"},
         {"b add own", "0"},
         {"b subscribe 99999 1 own", "4 4 2"},
         {"b subscribe t", "0; a active"},
         {"c register", "0"},
         {"c subscribe t t", "0 0"}, // the newest is told first
         {R"(a tell t {"n":4})", R"(0; b news {"n":4}; c news {"n":4}; c news {"n":4})"},
         {"a poll t", R"(0; a {"n":1}; a end 306; a {"n":1}; a end 106; a {"n":1}; a end 206; a end 0; )"
                      "b news {}; c news {}; c news {}"},
         {"a notify t", "7; b news {}; c news {}; c news {}"},
         {"b unsubscribe t t", "0 4"},
         {"c leave", "0; a inactive"},
         {"a notify t", "0"},
         {"b subscribe t", "0; a active"},
         {"a leave", "0; b gone"}});
}

// Nodes that follow the bus by themselves: one subscribes to what comes, one connects when it can.
TEST_F(Client, FollowsByItself) {
    Node &a = node('a');
    a.subscriber.new_obj_cb = [](ubus_context *ctx, ubus_subscriber *, const char *offered) {
        note(ctx, offered);
        return offered[0] == 't';
    };
    run({{"b add old", "0"},
         {"a register", "a old; 0"},
         {"b add t", "0; a t; b active"},
         {"a reconnect " + path, "a old; a t; 0; b inactive; b active"},
         {"b tell t", "0; a news {}"},
         {"a leave", "0; b inactive"}});
    a.subscriber.obj.id = 0; // for use with another context
    connect_node('a', path);
    EXPECT_EQ(ubus_unregister_subscriber(&a, &a.subscriber), 4);
    run({{"a register", "a old; a t; 0; b active"}});

    static int connected = 0;
    const std::string later = folder + "/later";
    ubus_auto_conn conn{};
    conn.path = later.c_str();
    conn.cb = [](ubus_context *) { connected++; };
    ubus_auto_connect(&conn);
    const auto found = [&] { return uloop_run_timeout(10), conn.ctx.sock.registered && connects_to(later); };
    for (int round = 0; round < 2; round++) {
        EXPECT_FALSE(found());
        auto second = run_daemon("-s", later);
        ASSERT_TRUE(wait_until(found));
        second->end(SIGKILL);
        ASSERT_TRUE(wait_until([&] { return uloop_run_timeout(10), !conn.ctx.sock.registered; }));
    }
    EXPECT_EQ(connected, 1);
    ubus_auto_shutdown(&conn);
}

// Who does not read loses messages, and only those that there is no room for; who sends does not notice.
TEST_F(Client, SleepingReader) {
    run({{"b listen e", "0"}, {"a listen x", "0"}});
    const std::string rest = R"(,"x":")" + std::string(1000, 'x') + "\"}";
    for (int i = 0; i < 4000; i++)
        ASSERT_EQ(ubus_send_event(&node('a'), "e", message(R"({"n":)" + std::to_string(i) + rest)), 0);
    settle();
    EXPECT_TRUE(trail.size() > 900 && trail.size() < 4000) << trail.size();
    for (size_t i = 0; i < trail.size(); i++)
        ASSERT_EQ(trail[i], R"(b e {"n":)" + std::to_string(i) + rest);
    run({{"a send e", "0; b e {}"}});
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
    const std::string statm = read_file("/proc/" + std::to_string(daemon->pid) + "/statm");
    EXPECT_LT(std::stol(statm.substr(statm.find(' '))) * sysconf(_SC_PAGESIZE), 30 << 20);
#endif
}

// Two ends of a socket pair, without a daemon.
TEST_F(Client, Channels) {
    int fd = -1;
    nodes['x'].name = 'x';
    nodes['y'].name = 'y';
    ASSERT_EQ(ubus_channel_create(&nodes['x'], &fd, nullptr), 0);
    ASSERT_EQ(ubus_channel_connect(&nodes['y'], fd, serve), 0);
    wired = true;
    run({{R"(x call 5.echo {"n":3})", R"(0; x {"n":3}; x end 0; y echo - {"n":3})"},
         {"x lookup z", "2"},
         {"x add z", "2"},
         {"x listen z", "2"},
         {"x send z", "2"},
         {"x subscribe 5", "2"},
         {"x reconnect " + path, "-1"}});
}

// uloop's part in connecting: what was default is handled, what was not stays; uloop_done puts back all but SIGPIPE.
TEST_F(Client, Signals) {
    const auto signals = [] {
        std::string all;
        for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
            struct sigaction now {};
            sigaction(number, nullptr, &now);
            all += now.sa_handler == SIG_DFL ? "default " : now.sa_handler == SIG_IGN ? "ignored " : "handled ";
        }
        return all;
    };
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_DFL);
    for (bool reaps : {true, false}) {
        uloop_handle_sigchld = reaps;
        run({{"a send x", "0"}});
        EXPECT_EQ(signals(), reaps ? "handled ignored handled ignored " : "handled ignored default ignored ");
        EXPECT_EQ(fcntl(nodes['a'].sock.fd, F_GETFD), FD_CLOEXEC);
        EXPECT_TRUE(fcntl(nodes['a'].sock.fd, F_GETFL) & O_NONBLOCK);
        run({{"a leave", "0"}});
        nodes.clear();
        uloop_done();
        EXPECT_EQ(signals(), "default ignored default ignored ");
    }
    uloop_handle_sigchld = true;
    signal(SIGTERM, SIG_DFL);
}

TEST_F(Client, AccessByUser) {
    const passwd *nobody = getpwnam("nobody");
    if (getuid() != 0 || !nobody || seteuid(nobody->pw_uid) != 0 || seteuid(0) != 0)
        GTEST_SKIP() << "needs root, and a second user to become";
    const uid_t user = nobody->pw_uid;
    const gid_t own = nobody->pw_gid, other = getgrnam("daemon")->gr_gid;
    // The credentials of a connection are those of the moment of connecting.
    const auto as_user = [](uid_t uid, gid_t gid, const std::function<void()> &connect) {
        ASSERT_EQ(setegid(gid) | seteuid(uid), 0);
        connect();
        ASSERT_EQ(seteuid(0) | setegid(0), 0);
    };
    const auto guest = [&](gid_t gid, const std::vector<Step> &steps) {
        as_user(user, gid, [&] { connect_node('n', path); });
        run(steps);
        run({{"n leave", "0"}});
        nodes.erase('n');
    };
    const auto rule = [&](const std::string &name, mode_t mode, const std::string &rules) {
        write_file(folder + "/rules/" + name, rules);
        chmod((folder + "/rules/" + name).c_str(), mode);
        kill(daemon->pid, SIGHUP);
        EXPECT_TRUE(pump(1));
        EXPECT_EQ(seen(), "a ubus.acl.sequence");
        settle();
    };
    as_user(user, 54321, [&] { EXPECT_EQ(ubus_connect(path.c_str()), nullptr) << "a group without name"; });
    as_user(54321, own, [&] { EXPECT_EQ(ubus_connect(path.c_str()), nullptr) << "a user without name"; });
    run({{"a add demo", "0"}, {"a listen ubus.acl.sequence", "0"}});
    const std::vector<Step> refused = {{"n lookup * demo", "0 0"},
                                       {"n invoke demo.hello", "6"},
                                       {"n listen foo.x", "6"},
                                       {"n send foo", "6"},
                                       {"n add mine", "2"},
                                       {"n register", "0"},
                                       {"n subscribe demo", "4"},
                                       {"n monitor add", "6"},
                                       {"n acl", "6"},
                                       {"n acl", "6"}};
    const std::string rules =
        R"({"user": "nobody", "access": {"de*": {"methods": ["hello", 1]}}, "publish": ["mine"], "subscribe": ["*"],
            "listen": ["foo.*"], "send": ["foo"]})";
    guest(own, refused);
    for (mode_t mode : {0664, 0646}) { // others could have written it
        rule("open.json", mode, rules);
        guest(own, refused);
    }
    rule("open.json", 0644, rules);
    guest(own, {{"n lookup *", "n demo; 0"},
                {"n call demo.hello", R"(0; a hello nobody {}; n {"ok":true,"txt":"abcd"}; n end 0)"},
                {"n call demo.ping", "0; n end 6"},
                {"n listen foo.x bar", "0 6"},
                {"n send foo bar", "0 6"},
                {"n add mine x", "0 2"},
                {"n register", "0"},
                {"n subscribe demo", "0; a active"},
                {"n unsubscribe demo", "0; a inactive"},
                {"n monitor add", "6"}});

    // By group, the main one or another.
    rule("open.json", 0644,
         R"({"group": "daemon", "access": {"d*": {"methods": ["*"], "acl": {"n": 5}}}, "send": ["*"]})");
    guest(own, {{"n send any", "6"}});
    guest(other, {{"n send any", "0"}});
    ASSERT_EQ(setgroups(1, &other), 0);
    if (!getenv("TAVRIK_EMULATOR")) // which does not tell the other groups
        guest(own, {{"n send any", "0"}});
    ASSERT_EQ(setgroups(0, nullptr), 0);
    // Services are told what rules say about their objects.
    run({{"a acl", "0"}, {"b acl", "2"}});
    const auto told = [](const char *who, const char *group) {
        ubus_acl_key key = {who, group, "demo"};
        int n = 0;
        acl_object *each;
        acl_for_each(each, &key) n += text(each->acl) == R"({"n":5})";
        return n;
    };
    EXPECT_EQ(told("nobody", "daemon"), 1);
    EXPECT_EQ(told("nobody", "nogroup"), 0);
    rule("open.json", 0644, "{}");
    EXPECT_EQ(told("nobody", "daemon"), 0);
}

// Stands between a client and the daemon.
void relay(const Peer &client, const std::string &path, std::string &record) {
    const Peer bus(path);
    client.write(bus.greeting);
    record = "\n<" + hex(bus.greeting);
    for (std::string m = "-"; !m.empty(); record += m) {
        pollfd both[] = {{client.fd, POLLIN, 0}, {bus.fd, POLLIN, 0}};
        const bool up = poll(both, 2, -1) > 0 && both[0].revents;
        m = (up ? client : bus).next();
        (up ? bus : client).write(m);
        m = m.empty() ? "" : (up ? "\n>" : "\n<") + hex(m);
    }
}

// Each connection's bytes in both directions.
TEST_F(Client, BytesOnTheWire) {
    const char *const expected[] = {R"(
<0000000022d1a60400000004 >00060001000000000000004c0200000964656d6f00000000{signature}
<000200010000000000000014{demo}05000008033c3bf6 <0001000100000000{ok}
<000500029b1ebf1000000054{demo}0400000a68656c6c6f000000{root}{data} >000200029b1ebf1000000034{demo}{reply}
>000100029b1ebf10000000140100000800000000{demo} <000500039b1ebf1000000034{demo}0400000b6e6f737563680000{root}07000004
>000100039b1ebf10000000140100000800000003{demo} >000600020000000000000004 <00020002000000000000000c030000086908fdce
<0001000200000000{ok}
>00050003000000010000004c03000008000000010400000d726567697374657200000000070000308500001400066f626a656374000000006908f
  dce8300001600077061747465726e000000666f6f2e2a000000 <0001000300000001{ok}
<000500010000000000000028030000086908fdce0400000c666f6f2e62617200070000108500000c0001610000000001
>0001000100000000000000140100000800000000030000086908fdce <000a00010000000000000014{demo}0900000501000000
>000a00042f7a107500000030{demo}040000096e65777300000000070000108500000c00017800000000050a00000501000000
>000a00052f7a10750000001c{demo}040000096e6577730000000007000004
<000100052f7a107500000020{demo}0b00000c000000087ee402510100000800000000
<000200057ee402510000001c030000087ee40251070000108500000c00016e0000000001
<000100057ee40251000000140100000800000006030000087ee40251 >00070006000000000000000c{demo}
<000200060000000000000014{demo}05000008033c3bf6 <000a00020000000000000014{demo}0900000500000000 <0001000600000000{ok}
)",
                                    R"(
<000000009b1ebf1000000004 >0004000100000000000000100200000964656d6f00000000
<00020001000000000000005c0200000964656d6f00000000{demo}05000008033c3bf6{signature} <0001000100000000{ok}
>000500022f7a10750000003c{demo}0400000a68656c6c6f000000{data} <000200022f7a107500000034{demo}{reply}
<000100022f7a1075000000140100000800000000{demo} >000500032f7a10750000001c{demo}0400000b6e6f73756368000007000004
<000100032f7a1075000000140100000800000003{demo}
>00050004000000010000004803000008000000010400000973656e640000000007000030830000140002696400000000666f6f2e6261720082000
  01800046461746100008500000c0001610000000001 <0001000400000001{ok} >000600050000000000000004
<00020005000000000000000c030000087ee40251 <0001000500000000{ok}
>000800060000000000000014030000087ee40251080000082f7a1075 <0001000600000000{ok}
<0005000422d1a604000000480a00000501000000030000087ee40251040000096e65777300000000{root}070000108500000c0001780000000005
<0005000522d1a60400000034030000087ee40251040000096e65777300000000{root}07000004
>0002000522d1a6040000001c030000087ee40251070000108500000c00016e0000000001
>0001000522d1a604000000140100000800000006030000087ee40251
>0005000700000003000000180300000800000003040000086164640007000004
<000b00010000000000000038000000089b1ebf1001000008000000030300000800000007040000080000000102000005010000000500000c01000
  00800000000 <0001000700000003{ok} >00050008000000030000001c03000008000000030400000b72656d6f7665000007000004
<000b00020000000000000048000000089b1ebf1001000008000000030300000800000008040000080000000502000005000000000500001c03000
  008000000030400000b72656d6f7665000007000004 <0001000800000003{ok}
<000900010000000000000014030000087ee40251080000082f7a1075
)"};
    const std::string between = folder + "/between";
    const int listener = unix_socket(between, bind);
    std::string records[2];
    std::thread relays[2];
    for (int i : {0, 1}) {
        relays[i] = std::thread([&, i] { relay(Peer(accept(listener, nullptr, nullptr)), path, records[i]); });
        connect_node("ab"[i], between);
    }
    close(listener);
    wired = true;
    run({{"a add demo", "0"},
         {"b lookup demo", "b demo; 0"},
         {R"(b call demo.hello {"id":7,"msg":"hi"})",
          R"(0; a hello root {"id":7,"msg":"hi"}; b {"ok":true,"txt":"abcd"}; b end 0)"},
         {"b call demo.nosuch", "0; b end 3"},
         {"a listen foo.*", "0"},
         {R"(b send foo.bar {"a":1})", R"(0; a foo.bar {"a":1})"},
         {"b register", "0"},
         {"b subscribe demo", "0; a active"},
         {R"(a tell demo {"x":5})", R"(0; b news {"x":5})"},
         {"a poll demo", R"(0; a {"n":1}; a end 106; a end 0; b news {})"},
         {"b monitor add", "b saw 1; 0"},
         {"b monitor remove", "b saw 2; 0"}});
    Node &a = node('a'), &b = node('b');
    const std::string demo = hex(u32(id_of(b, "demo")));
    const std::pair<std::string, std::string> names[] = {
        {hex(u32(__builtin_bswap32(a.local_id))), "22d1a604"},
        {hex(u32(__builtin_bswap32(b.local_id))), "9b1ebf10"},
        {hex(u32(a.objects["demo"].id)), "2f7a1075"},
        {hex(u32(a.type.id)), "033c3bf6"},
        {hex(u32(a.events.obj.id)), "6908fdce"},
        {hex(u32(b.subscriber.obj.id)), "7ee40251"},
        {"030000082f7a1075", "{demo}"},
        {"0600003c8200002c000568656c6c6f00850000100002696400000000000000058500001000036d7367000000000000038200000c"
         "000470696e670000",
         "{signature}"},
        {"07000024850000100002696400000000000000078300000f00036d736700000068690000", "{data}"},
        {"070000288700000d00026f6b00000000010000008300001100037478740000006162636400000000", "{reply}"},
        {"0c000009726f6f74000000000d000009726f6f7400000000", "{root}"},
        {"0000000c0100000800000000", "{ok}"}};
    run({{"a remove demo", "0; b gone"}, {"a leave", "0"}, {"b leave", "0"}});
    for (int i : {0, 1}) {
        relays[i].join();
        for (const auto &[bytes, name] : names)
            for (size_t at; (at = records[i].find(bytes)) != std::string::npos;)
                records[i].replace(at, bytes.size(), name);
        std::string lines;
        for (const char *c = expected[i]; *c; c++)
            lines += isspace(*c) ? "" : (*c == '<' || *c == '>' ? "\n" : "") + std::string(1, *c);
        EXPECT_EQ(records[i], lines);
    }
}

// A daemon that says what it is told to, byte by byte.
TEST_F(Client, OddAnswers) {
    const std::string odd = folder + "/odd", hello = "000000009b1ebf1000000004", own = "0300000800001234";
    const std::string good = "00010001000000050000000c0100000800000006";
    std::vector<std::tuple<std::string, std::string, int>> rows = {
        {hello, good, 6}, // to INVOKE 1 to object 5
        {"000000009b1ebf1000000008aabbccdd", good, 6},
        {"010000009b1ebf1000000004", "", -1},
        {"000000000100000000000004", "", -1},
        {hello.substr(0, 20), "", -1},
        {hello, "000100010000000600000008" + good.substr(24, 8) + good, 6},             // another peer's
        {hello, "070100010000000500000008aabbccdd" + good, 6},                          // another version
        {hello, "0002000100000005001f00ff" + std::string(2 * 0x1f00fb, '0') + good, 6}, // longer than allowed
        {hello, "0002000100000005000000100700000c7f00ffff01020304" + good, 6},          // no blobmsg
        {hello, "000100010000000500000004", 2},                                         // no attribute
        {hello, "00010001000000050000000c0100000900000006" + good, 2},                  // attribute beyond the end
        {hello, "000100010000000500000000", 10},                                        // length below 4
        {hello, "00020001000000050000000c0700000885", 10},                              // ends in the middle
    };
    const auto odd_rows = static_cast<ssize_t>(rows.size());
    for (const std::string seq : {"0001", "0002"}) // to ADD_OBJECT, with a call to the object before the status
        rows.emplace_back(hello,
                          "0002" + seq + "000000000000000c" + own + "000500029b1ebf100000001c" + own +
                              "040000096e6f6e650000000007000004" + "0001" + seq + "000000000000000c0100000800000000",
                          0);
    const int listener = unix_socket(odd, bind);
    Child fake([&] {
        for (const auto &[first, answer, status] : rows) {
            const Peer &client = *new Peer(accept(listener, nullptr, nullptr)); // can be sent to until all is done
            client.write(unhex(first));
            client.next();
            client.write(unhex(answer));
            shutdown(client.fd, status ? SHUT_WR : -1);
        }
        return pause();
    });
    close(listener);
    std::for_each(rows.begin(), rows.begin() + odd_rows, [&](const auto &row) {
        ubus_context *c = ubus_connect(odd.c_str());
        const int status = c ? ubus_invoke(c, 5, "m", nullptr, nullptr, nullptr, ceiling_ms) : -1;
        EXPECT_EQ(status, std::get<2>(row)) << std::get<1>(row).substr(0, 80);
        ubus_free(c);
    });
    connect_node('a', odd);
    wired = true;
    run({{"a add own", "a none - {}; 0"}, {"a reconnect " + odd, "a none - {}; 0"}});
}

} // namespace

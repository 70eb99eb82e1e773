// The installed `ubus` program against the daemon.
#include "bus_fixture.h"

#include <thread>

using namespace hostbus;

namespace {

class Program : public HostBus {
  protected:
    // What it prints, and its exit code at the end.
    std::string ubus(const std::string &arguments) {
        FILE *out = popen((UBUS_PROGRAM " -s " + path + " " + arguments + " 2>&1").c_str(), "r");
        std::string text;
        for (int c; (c = fgetc(out)) != EOF;)
            text += static_cast<char>(c);
        return text + std::to_string(WEXITSTATUS(pclose(out)));
    }
};

TEST_F(Program, SeesTheBus) {
    EXPECT_EQ(ubus("list"), "0");
    Peer owner(path);
    Body arguments, methods;
    arguments.field_u32("id", BLOBMSG_TYPE_INT32)
        .field_u32("msg", BLOBMSG_TYPE_STRING)
        .field_u32("on", BLOBMSG_TYPE_INT8);
    methods.field(BLOBMSG_TYPE_TABLE, "hello", arguments.bytes()).field(BLOBMSG_TYPE_TABLE, "ping", "");
    uint32_t id = owner.add("demo", methods);
    owner.add("test", methods);
    std::thread replies([&] { // each call gets its data back twice, calls of ping get nothing, silent ones wait
        for (Message m; (m = owner.next()).type == UBUS_MSG_INVOKE && m.text(UBUS_ATTR_METHOD) != "stop";) {
            if (m.text(UBUS_ATTR_METHOD) == "silent")
                continue;
            owner.seq = m.seq - 1;
            Body data = Body().put_u32(UBUS_ATTR_OBJID, id).put(UBUS_ATTR_DATA, m.payload(UBUS_ATTR_DATA));
            for (int i = 0; i < 2 && m.text(UBUS_ATTR_METHOD) == "hello"; i++, owner.seq = m.seq - 1)
                owner.send(UBUS_MSG_DATA, data, m.peer);
            int status = m.text(UBUS_ATTR_METHOD) == "nosuch" ? 3 : 0;
            owner.send(UBUS_MSG_STATUS, Body().put_u32(UBUS_ATTR_STATUS, uint32_t(status)).put_u32(UBUS_ATTR_OBJID, id),
                       m.peer);
        }
    });
    std::string line = R"({"id":-5,"big":4294967296,"t":true,"d":2.5,"n":null})"
                       "\n";
    struct {
        std::string arguments, output;
    } const rows[] = {
        {"list", "demo\ntest\n0"},
        {"list 'te*'", "test\n0"},
        {"list nosuch", "Command failed: Not found\n4"},
        {"-v list demo",
         "'demo' @" + hex(u32(id)) +
             "\n\t\"hello\":{\"id\":\"Integer\",\"msg\":\"String\",\"on\":\"Boolean\"}\n\t\"ping\":{}\n0"},
        {"-S call demo hello '" + line + "'", line + line + "0"},
        {"-S call demo ping", "0"},
        {"-S call demo nosuch", "3"},
        {"call nosuch ping", "Command failed: Not found\n4"},
        {"call demo nosuch", "Command failed: ubus call demo nosuch (Method not found)\n253"},
        {"-S -t 1 call demo silent", "7"},
        {"send foo '{\"a\":1}'", "0"},
        {"send ubus.x", "Command failed: Permission denied\n6"},
        {"-t 1 wait_for demo", "0"},
        {"-t 1 wait_for never", "Command failed: Request timed out\n7"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ubus(row.arguments), row.output) << row.arguments;
    Peer(path).send(UBUS_MSG_INVOKE, Body().put_u32(UBUS_ATTR_OBJID, id).put_string(UBUS_ATTR_METHOD, "stop"));
    replies.join();
}

TEST_F(Program, WaitsAndListens) {
    Peer peer(path);
    std::string heard, seen, told, watched;
    std::thread listener([&] { heard = ubus("-t 4 listen 'foo.*'"); });
    std::thread waiter([&] { seen = ubus("-t 30 wait_for late"); });
    uint32_t target = peer.add("target", Body().field(BLOBMSG_TYPE_TABLE, "m", ""));
    std::thread subscriber([&] { told = ubus("-t 4 subscribe target"); });
    Message active = peer.next();
    EXPECT_EQ(hex(active.payload(UBUS_ATTR_ACTIVE)), "01");
    Body news;
    news.put_u32(UBUS_ATTR_OBJID, target).put_string(UBUS_ATTR_METHOD, "news").put(UBUS_ATTR_DATA, "");
    peer.ask(UBUS_MSG_NOTIFY, news, target);
    for (int i = 0; i < 10; i++, usleep(200000)) // until the listener has surely registered
        peer.event("foo.bar", Body().field_u32("a", 1));
    peer.add("late", Body().field(BLOBMSG_TYPE_TABLE, "m", ""));
    listener.join();
    waiter.join();
    subscriber.join();
    EXPECT_EQ(heard.substr(0, 22), "{ \"foo.bar\": {\"a\":1} }");
    EXPECT_EQ(seen, "0");
    EXPECT_NE(told.find("\"news\""), std::string::npos) << told;
}

} // namespace

// The installed `ubus` program against the daemon.
#include "bus_fixture.h"

#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <map>
#include <pwd.h>
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
        .field_u32("on", BLOBMSG_TYPE_INT8)
        .field_u32("list", BLOBMSG_TYPE_ARRAY)
        .field_u32("tab", BLOBMSG_TYPE_TABLE)
        .field_u32("real", BLOBMSG_TYPE_DOUBLE);
    methods.field(BLOBMSG_TYPE_TABLE, "hello", arguments.bytes()).field(BLOBMSG_TYPE_TABLE, "ping", "");
    uint32_t id = owner.add("demo", methods);
    owner.add("test", methods);
    uint32_t brief = owner.add("brief", methods);
    std::map<std::string, std::string> received; // with the last call of each method
    std::thread replies([&] { // each call gets its data back twice, calls of ping get nothing, silent ones wait
        for (Message m; (m = owner.next()).type >= 0 && m.text(UBUS_ATTR_METHOD) != "stop";) {
            if (m.type != UBUS_MSG_INVOKE)
                continue;
            std::string method = m.text(UBUS_ATTR_METHOD);
            received[method] = hex(m.payload(UBUS_ATTR_DATA));
            if (method == "remove")
                owner.send(UBUS_MSG_REMOVE_OBJECT, Body().put_u32(UBUS_ATTR_OBJID, brief));
            if (method == "remove" || method == "silent")
                continue;
            if (method == "later")
                usleep(300000);
            owner.seq = m.seq - 1;
            Body data = Body().put_u32(UBUS_ATTR_OBJID, id).put(UBUS_ATTR_DATA, m.payload(UBUS_ATTR_DATA));
            for (int i = 0; i < 2 && method == "hello"; i++, owner.seq = m.seq - 1)
                owner.send(UBUS_MSG_DATA, data, m.peer);
            if (method == "later") {
                owner.send(
                    UBUS_MSG_DATA,
                    Body().put_u32(UBUS_ATTR_OBJID, id).put(UBUS_ATTR_DATA, Body().field_u32("late", 300).bytes()),
                    m.peer);
                owner.seq = m.seq - 1;
            }
            int status = method == "nosuch" ? 3 : method == "later" ? 77 : 0;
            owner.send(UBUS_MSG_STATUS, Body().put_u32(UBUS_ATTR_STATUS, uint32_t(status)).put_u32(UBUS_ATTR_OBJID, id),
                       m.peer);
        }
    });
    std::string line = R"({"id":-5,"big":4294967296,"t":true,"d":2.5,"n":null})"
                       "\n";
    struct {
        std::string arguments, output;
    } const rows[] = {
        {"list", "brief\ndemo\ntest\n0"},
        {"list 'te*'", "test\n0"},
        {"list nosuch", "Command failed: Not found\n4"},
        {"-v list demo", "'demo' @" + hex(u32(id)) +
                             "\n\t\"hello\":{\"id\":\"Integer\",\"msg\":\"String\",\"on\":\"Boolean\",\"list\":"
                             "\"Array\",\"tab\":\"Table\","
                             "\"real\":\"(unknown)\"}\n\t\"ping\":{}\n0"},
        {"-S call demo hello '" + line + "'", line + line + "0"},
        {"-S call demo ping", "0"},
        {"-S call demo nosuch", "3"},
        {"call nosuch ping", "Command failed: Not found\n4"},
        {"call demo nosuch", "Command failed: ubus call demo nosuch (Method not found)\n253"},
        {"-S -t 1 call demo silent", "7"},
        {"-t 1 call demo silent", "Command failed: ubus call demo silent (Request timed out)\n249"},
        {"-S -t 1 call brief remove", "7"},
        {"-S call demo later", "{\"late\":300}\n77"},
        {"send foo '{\"a\":1}'", "0"},
        {"send ubus.x", "Command failed: Permission denied\n6"},
        {"-t 1 wait_for demo", "0"},
        {"-t 1 wait_for never", "Command failed: Request timed out\n7"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(ubus(row.arguments), row.output) << row.arguments;
    Peer(path).send(UBUS_MSG_INVOKE, Body().put_u32(UBUS_ATTR_OBJID, id).put_string(UBUS_ATTR_METHOD, "stop"));
    replies.join();
    // What numbers and the like are on the wire.
    Body sent;
    sent.field_u32("id", uint32_t(-5)).field(BLOBMSG_TYPE_INT64, "big", unhex("0000000100000000"));
    sent.field(BLOBMSG_TYPE_INT8, "t", unhex("01")).field(BLOBMSG_TYPE_DOUBLE, "d", unhex("4004000000000000"));
    EXPECT_EQ(received["hello"], hex(sent.field(BLOBMSG_TYPE_UNSPEC, "n", "").bytes()));
    EXPECT_EQ(received["ping"], "");
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

// Its owner or the daemon is killed in the middle of a call.
TEST_F(Program, LosesWhomItTalksTo) {
    for (bool daemon_dies : {false, true}) {
        auto owner = std::make_unique<Peer>(path);
        owner->add("demo", Body().field(BLOBMSG_TYPE_TABLE, "m", ""));
        std::string end;
        std::thread caller([&] { end = ubus(daemon_dies ? "-S call demo m" : "-S -t 1 call demo m"); });
        EXPECT_EQ(owner->next().type, UBUS_MSG_INVOKE);
        if (daemon_dies)
            daemon->end(SIGKILL);
        else
            owner->hang_up();
        caller.join();
        EXPECT_EQ(end, daemon_dies ? "10" : "7");
    }
    start_daemon();
}

TEST_F(Program, Monitors) {
    if (getuid() != 0 || getgid() != 0)
        GTEST_SKIP() << "only root may monitor";
    Peer peer(path);
    std::string output = folder + "/monitored", text;
    // It writes when it ends. The wait is doubled until it surely monitored at the time.
    for (useconds_t wait = 100000; text.find("\"last\"") == std::string::npos && wait < 20000000; wait *= 2) {
        Child monitor([&] {
            int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, 1);
            execl(UBUS_PROGRAM, "ubus", "-s", path.c_str(), "monitor", nullptr);
            return 127;
        });
        usleep(wait);
        peer.seq = 0;
        EXPECT_EQ(peer.event("last", Body().field_u32("b", 2)), 0);
        usleep(wait);
        monitor.end(SIGTERM);
        std::ifstream file(output);
        text.assign(std::istreambuf_iterator<char>(file), {});
    }
    std::string client = hex(u32(peer.id));
    EXPECT_NE(text.find("<- " + client + " #00000001         invoke: " +
                        R"({"objid":1,"method":"send","data":{"id":"last","data":{"b":2}}})" + "\n-> " + client +
                        " #00000001         status: {\"status\":0}\n"),
              std::string::npos)
        << text;
}

TEST_F(Program, RunsAsAnotherUser) {
    const passwd *nobody = getpwnam("nobody");
    if (getuid() != 0 || !nobody || !getgrgid(nobody->pw_gid))
        GTEST_SKIP() << "needs root, and a second user to become";
    Peer owner(path);
    owner.add("demo", Body().field(BLOBMSG_TYPE_TABLE, "m", ""));
    struct {
        uid_t uid;
        std::string arguments, output;
    } const rows[] = {
        {54321, "list", "Failed to connect to ubus\n255"},
        {nobody->pw_uid, "list", "0"},
        {nobody->pw_uid, "list demo", "0"},
        {nobody->pw_uid, "send foo", "Command failed: Permission denied\n6"},
        {nobody->pw_uid, "listen foo", "Error while registering for event 'foo': Permission denied\n255"},
        {nobody->pw_uid, "monitor", "Command failed: Permission denied\n6"},
    };
    for (const auto &row : rows) {
        std::string output = folder + "/output";
        Child user([&] {
            int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (dup2(fd, 1) < 0 || dup2(fd, 2) < 0 || setgroups(0, nullptr) || setgid(nobody->pw_gid) ||
                setuid(row.uid))
                return 126;
            execl("/bin/sh", "sh", "-c", (UBUS_PROGRAM " -s " + path + " " + row.arguments).c_str(), nullptr);
            return 127;
        });
        int code = user.end();
        std::ifstream file(output);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}) + std::to_string(code), row.output)
            << row.arguments;
    }
}

} // namespace

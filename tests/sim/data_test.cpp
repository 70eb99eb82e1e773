// Packet data as the simulated module has it: contexts over AT and RIL, their links and what is behind them, the
// network daemon's objects.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/ip_icmp.h>

#include "bus.h"
#include "rilutil.h"
#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using Texts = std::vector<std::string>;

class Data : public testing::Test {
  protected:
    void SetUp() override { sim::call("reset"); }
    void TearDown() override { sim::call("reset"); }
};

// The reply to an AT command, without its line ends.
std::string at(const std::string &command) {
    return std::regex_replace(shell("serial_atcmd '" + command + "'").output, std::regex("[\r\n]+"), " ");
}

// What the far end says over a link; a name is asked for with the family in front, "-6 a.name".
std::string page(const std::string &link, const std::string &host) {
    const size_t blank = host.find(' ') + 1; // 0 without
    return shell("curl -sS -g -m 20 " + host.substr(0, blank) + "--interface " + link + " 'http://" +
                 host.substr(blank) + "/' 2>&1")
        .output;
}

bool is_up(const std::string &link) {
    return shell("ifconfig " + link + " 2>/dev/null").output.find("<UP") != std::string::npos;
}

// Do pings to this address come back over this link?
bool pinged(const char *link, const char *address) {
    const int fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    const timeval limit = {20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, link, socklen_t(strlen(link))), 0);
    icmphdr question = {};
    question.type = ICMP_ECHO;
    question.checksum = htons(uint16_t(~(ICMP_ECHO << 8)));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    inet_pton(AF_INET, address, &to.sin_addr);
    sendto(fd, &question, sizeof question, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    unsigned char answer[128] = {};
    const ssize_t n = recv(fd, answer, sizeof answer, 0);
    close(fd);
    return n >= ssize_t(20 + sizeof question) && answer[20] == ICMP_ECHOREPLY;
}

TEST_F(Data, ContextsAreDefinedAndActivated) {
    const std::pair<const char *, const char *> dialogue[] = {
        {"AT+CGCONTRDP=?", " +CGCONTRDP: () OK "},
        {"AT+CGDCONT?", " OK "},
        {"AT+ZGACT=1,1", " ERROR "},
        {"AT*ZGDCONT=5,\"IPV4V6\",\"a,b\",1", " OK "},
        {"AT*ZGDCONT=1,\"IP\",\"internet\",0", " OK "},
        {"AT*ZGDCONT=5,\"IPV6\",\"ims\",1", " OK "},
        {"AT+CGDCONT?", " +CGDCONT: 1,\"IP\",\"internet\" +CGDCONT: 5,\"IPV6\",\"ims\" OK "},
        {"AT+ZGACT=1,5", " OK "},
        {"AT+ZGACT=1,1", " OK "},
        {"AT+ZGACT=1,1", " OK "},
        {"AT+CGCONTRDP=?", " +CGCONTRDP: (5,1) OK "},
        {"AT*ZGDCONT=5", " ERROR "},
        {"AT+ZGACT=0,5", " OK "},
        {"AT*ZGDCONT=5", " OK "},
        {"AT+ZGACT=1,5", " ERROR "},
        {"AT+ZGACT=0,5", " OK "}, // where it is already
        {"AT+CGCONTRDP=?", " +CGCONTRDP: (1) OK "},
        {"AT*ZGDCONT=16,\"IP\",\"\",1", " OK "},
        {"AT*ZGDCONT=17,\"IP\",\"x\",1", " ERROR "},
        {"AT*ZGDCONT=0,\"IP\",\"x\",1", " ERROR "},
        {"AT*ZGDCONT=2,\"PPP\",\"x\",1", " ERROR "},
        {"AT*ZGDCONT=2,\"IP\",\"x\"", " ERROR "},
        {"AT*ZGDCONT=2,\"IP\",\"x\",2", " ERROR "},
        {"AT+ZGACT=2,1", " ERROR "},
        {"AT+CGATT=0", " OK "},
        {"AT+ZGACT=1,16", " ERROR "},
        {"ATE1", " OK "},
        {"AT*ZGDCONT=2,\"IP\",\"OK\",0", "AT*ZGDCONT=2,\"IP\",\"OK\",0 OK "},
    };
    for (auto &[command, reply] : dialogue)
        EXPECT_EQ(at(command), reply) << command;
    // Whatever a modem may list.
    for (const char *contexts : {"1-5", "0", "16", "4294967295", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16"}) {
        sim::call("reset");
        sim::call("state", {{"contexts", contexts}, {"link_up", false}});
        EXPECT_EQ(at("AT+CGCONTRDP=?"), " +CGCONTRDP: (" + std::string(contexts) + ") OK ");
    }
    EXPECT_EQ(at("AT+CGDCONT?"), " OK ");
}

TEST_F(Data, LinksCarryTheirOwnPages) {
    EXPECT_EQ(shell("ifconfig | grep ccinet").output, "");
    for (const char *command : {"AT*ZGDCONT=1,\"IPV4V6\",\"internet\",0", "AT*ZGDCONT=2,\"IP\",\"ims\",1",
                                "AT*ZGDCONT=15,\"IPV6\",\"six\",1"})
        EXPECT_EQ(at(command), " OK ");
    for (int round = 0; round < 3; round++) {
        SCOPED_TRACE(round);
        for (const char *cid : {"2", "1", "15"})
            EXPECT_EQ(at(std::string("AT+ZGACT=1,") + cid), " OK ");
        for (const char *link : {"ccinet0", "ccinet1", "ccinet14"})
            EXPECT_TRUE(is_up(link)) << link;
        // Two at once.
        EXPECT_EQ(shell("curl -sS -m 20 --interface ccinet1 http://192.0.2.1/ >/tmp/second &"
                        "curl -sS -m 20 --interface ccinet0 http://192.0.2.1/; wait; cat /tmp/second")
                      .output,
                  "ccinet0\nccinet1\n");
        EXPECT_EQ(page("ccinet14", "[2001:db8::1]"), "ccinet14\n");
        EXPECT_EQ(page("ccinet0", "[2001:db8::1]"), "ccinet0\n");
        // Names, which both families' servers know; the default route is that of the first link.
        EXPECT_EQ(shell("curl -sS -m 20 -4 http://a.name.example/any/path").output, "ccinet0\n");
        EXPECT_EQ(page("ccinet14", "-6 b.example"), "ccinet14\n");
        EXPECT_TRUE(pinged("ccinet1", "192.0.2.1"));
        EXPECT_TRUE(pinged("ccinet0", "192.0.2.53"));
        // Each address at once, none of them tentative.
        EXPECT_EQ(shell("awk '/ccinet/ { print $1, $3, $4, $5, $6 }' /proc/net/if_inet6 | sort").output,
                  "20010db8006400010000000000000002 40 00 82 ccinet0\n"
                  "20010db8006400150000000000000002 40 00 82 ccinet14\n"
                  "fe800000000000000000000000000002 40 20 82 ccinet0\n"
                  "fe800000000000000000000000000002 40 20 82 ccinet14\n");
        EXPECT_EQ(at("AT+ZGACT=0,1"), " OK ");
        EXPECT_FALSE(is_up("ccinet0"));
        EXPECT_EQ(page("ccinet1", "192.0.2.1"), "ccinet1\n");
        EXPECT_EQ(read_file("/etc/resolv.conf"), "nameserver 192.0.2.53\nnameserver 192.0.2.54\n"
                                                 "nameserver 2001:db8::53\nnameserver 2001:db8::54\n");
        sim::call("context", {{"cid", 15}, {"state", 0}}); // by the network
        EXPECT_EQ(at("AT+ZGACT=0,2"), " OK ");
        EXPECT_EQ(shell("ifconfig | grep ccinet; grep ccinet /proc/net/route; cat /etc/resolv.conf").output, "");
    }
}

TEST_F(Data, LinkStaysDownWhenToldTo) {
    sim::call("state", {{"link_up", false}, {"pdp", {{{"cid", 5}, {"type", "IPV4V6"}}}}, {"contexts", "5,300,x"}});
    EXPECT_FALSE(is_up("ccinet4"));
    EXPECT_EQ(shell("ifconfig ccinet4 up").code, 0);
    EXPECT_TRUE(is_up("ccinet4"));
    EXPECT_EQ(page("ccinet4", "10.64.4.1"), "ccinet4\n");
    EXPECT_EQ(page("ccinet4", "[2001:db8:64:5::1]"), "ccinet4\n");
    sim::call("reset");
    EXPECT_FALSE(is_up("ccinet4"));
    EXPECT_EQ(shell("ifconfig ccinet4 | grep ' inet'; grep ccinet /proc/net/if_inet6").output, "");
    // What a program switched on itself is off then, too.
    shell("ifconfig ccinet4 10.1.1.1 up");
    sim::call("reset");
    EXPECT_FALSE(is_up("ccinet4"));
}

struct Reply {
    int32_t error = -1;
    std::string data;
};

Reply request(uint32_t id, const std::string &payload = "") {
    Reply reply;
    const auto take = [](ubus_request *pending, int, blob_attr *message) {
        uint32_t its_id;
        void *data;
        size_t length;
        auto *to = static_cast<Reply *>(pending->priv);
        if (rilutil_parseResponseDSMaster(message, &its_id, &to->error, &data, &length))
            return;
        to->data.assign(static_cast<char *>(data), data ? length : 0);
        rilutil_freeResponseData(its_id, data, length);
    };
    uint32_t object = 0;
    ubus_context *bus = ubus_connect(nullptr);
    blob_buf buffer = {};
    blob_buf_init(&buffer, 0);
    rilutil_makeRequestBlobDSMaster(&buffer, id, payload.empty() ? nullptr : payload.data(), payload.size());
    EXPECT_EQ(ubus_lookup_id(bus, "ril", &object), 0);
    EXPECT_EQ(ubus_invoke(bus, object, "ril_request", buffer.head, take, &reply, 20000), 0);
    blob_buf_free(&buffer);
    ubus_free(bus);
    return reply;
}

// Records as "STATUS CID ACTIVE TYPE IFNAME APN ADDR,DNS,GATEWAY,SUBMASK".
Texts records(const Reply &reply) {
    Texts all;
    EXPECT_EQ(reply.error, 0);
    EXPECT_EQ(reply.data.size() % sizeof(RilDataCall), 0u);
    for (size_t at = 0; at + sizeof(RilDataCall) <= reply.data.size(); at += sizeof(RilDataCall)) {
        RilDataCall call;
        memcpy(&call, reply.data.data() + at, sizeof call);
        all.push_back(std::to_string(call.status) + " " + std::to_string(call.cid) + " " + std::to_string(call.active) +
                      " " + call.type + " " + call.ifname + " " + call.apn + " " + call.addr + "," + call.dns + "," +
                      call.gateway + "," + call.submask);
    }
    return all;
}

TEST_F(Data, RilListsAndSetsUpCalls) {
    const std::string four = "10.64.0.2,192.0.2.53 192.0.2.54,10.64.0.1,255.255.255.0";
    EXPECT_EQ(records(request(57)), Texts{});
    EXPECT_EQ(records(request(596)), Texts{"0 1 1 IP ccinet0 internet " + four});
    EXPECT_EQ(page("ccinet0", "192.0.2.1"), "ccinet0\n");
    EXPECT_EQ(records(request(57)), Texts{"0 1 1 IP ccinet0 internet " + four});
    at("AT*ZGDCONT=16,\"IPV4V6\",\"both\",1");
    at("AT*ZGDCONT=3,\"IPV6\",\"six\",1");
    const std::string sixth = "0 3 1 IPV6 ccinet2 six 2001:db8:64:3::2,2001:db8::53 2001:db8::54,2001:db8:64:3::1,";
    EXPECT_EQ(records(request(596, std::string("\x03\0\0\0", 4))), Texts{sixth});
    at("AT+ZGACT=1,16");
    EXPECT_EQ(records(request(57)),
              (Texts{"0 1 1 IP ccinet0 internet " + four, sixth,
                     "0 16 1 IPV4V6 ccinet15 both 10.64.15.2 2001:db8:64:16::2,192.0.2.53 192.0.2.54 2001:db8::53 "
                     "2001:db8::54,10.64.15.1 2001:db8:64:16::1,255.255.255.0"}));
    EXPECT_EQ(request(596, std::string("\x11\0\0\0", 4)).error, 2);
    EXPECT_EQ(request(596, "x").error, 2);
    sim::call("state", {{"attached", false}, {"contexts", ""}});
    const Texts refused = records(request(596));
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].substr(0, 7), "30 1 0 ");
    EXPECT_EQ(records(request(57)), Texts{});
    sim::call("fault", {{"service", "ril"}, {"match", 57}, {"data", "0102"}, {"count", 1}});
    EXPECT_EQ(request(57).data, "\x01\x02");
}

// Status and number of messages of a call with one text field, when there is a name for it.
std::string invoke(const char *object, const char *method, const char *field = nullptr, const char *text = "") {
    int messages = 0;
    uint32_t id = 0;
    ubus_context *bus = ubus_connect(nullptr);
    blob_buf buffer = {};
    blob_buf_init(&buffer, 0);
    if (field)
        blobmsg_add_string(&buffer, field, text);
    int status = ubus_lookup_id(bus, object, &id);
    const auto count = [](ubus_request *pending, int, blob_attr *) { ++*static_cast<int *>(pending->priv); };
    if (!status)
        status = ubus_invoke(bus, id, method, buffer.head, count, &messages, 300);
    blob_buf_free(&buffer);
    ubus_free(bus);
    return std::to_string(status) + " " + std::to_string(messages);
}

TEST_F(Data, NetworkDaemonRemembersWhatItIsTold) {
    const auto wan = [](const char *method, const char *field = "interface") {
        return invoke("network.interface", method, field, "wan0");
    };
    const std::string done = "0 0", silent = std::to_string(UBUS_STATUS_TIMEOUT) + " 0",
                      absent = std::to_string(UBUS_STATUS_NOT_FOUND) + " 0";
    EXPECT_EQ(invoke("network", "reload"), done);
    EXPECT_EQ(wan("down"), done);
    EXPECT_EQ(wan("up"), done);
    EXPECT_EQ(wan("up", "name"), std::to_string(UBUS_STATUS_INVALID_ARGUMENT) + " 0");
    EXPECT_EQ(sim::recorded("network"), (Texts{"reload {}"}));
    EXPECT_EQ(sim::recorded("network.interface"), (Texts{})); // the call before has cleared the record
    sim::fault("network.interface", "down wan0", {{"status", 9}});
    sim::fault("network.interface", "up *", {{"drop", true}});
    sim::fault("network", "reload", {{"reply", {{"a", 1}}}});
    EXPECT_EQ(wan("down"), "9 0");
    EXPECT_EQ(invoke("network.interface", "down", "interface", "lan"), done);
    EXPECT_EQ(wan("up"), silent);
    EXPECT_EQ(invoke("network", "reload"), "0 1");
    EXPECT_EQ(sim::recorded("network.interface"),
              (Texts{"down {\"interface\":\"wan0\"}", "down {\"interface\":\"lan\"}", "up {\"interface\":\"wan0\"}"}));
    sim::call("fault", {{"service", "network"}, {"stop", true}});
    EXPECT_EQ(invoke("network", "reload"), absent);
    EXPECT_EQ(invoke("network.interface", "down", "interface", "lan"), done);
}

} // namespace

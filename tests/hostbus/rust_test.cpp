// An independent client, written in Rust, against the daemon.
#include "bus_fixture.h"

#include <thread>

using namespace hostbus;

TEST_F(HostBus, IndependentClientListsAndCalls) {
    Peer owner(path);
    Body arguments, methods;
    arguments.field_u32("id", BLOBMSG_TYPE_INT32).field_u32("msg", BLOBMSG_TYPE_STRING);
    methods.field(BLOBMSG_TYPE_TABLE, "hello", arguments.bytes()).field(BLOBMSG_TYPE_TABLE, "ping", "");
    std::string demo = hex(u32(owner.add("demo", methods))), other = hex(u32(owner.add("other", methods))), received;
    std::thread reply([&] {
        Message m = owner.next();
        received = hex(m.payload(UBUS_ATTR_DATA));
        Body object = Body().put(UBUS_ATTR_OBJID, m.payload(UBUS_ATTR_OBJID)), status = object;
        Body data = Body().field_u32("n", 7).field_string("text", "abc");
        owner.seq = m.seq - 1;
        owner.send(UBUS_MSG_DATA, object.put(UBUS_ATTR_DATA, data.bytes()), m.peer);
        owner.seq = m.seq - 1;
        owner.send(UBUS_MSG_STATUS, status.put_u32(UBUS_ATTR_STATUS, 0), m.peer);
    });
    FILE *out = popen((RUST_PROGRAM " " + path + R"( demo hello '{"id":5,"msg":"hi"}' 2>&1)").c_str(), "r");
    std::string text;
    for (int c; (c = fgetc(out)) != EOF;)
        text += static_cast<char>(c);
    EXPECT_EQ(pclose(out), 0);
    reply.join();
    EXPECT_EQ(text, "demo " + demo + " hello ping\nother " + other + " hello ping\n" +
                        "{\n\t\"n\": 7,\n\t\"text\": \"abc\"\n}\nUbus return ErrorCode(4)\n");
    EXPECT_EQ(received, hex(Body().field_u32("id", 5).field_string("msg", "hi").bytes()));
}

// An independent client, written in Rust, against the daemon.
#include "bus_fixture.h"

using namespace hostbus;

TEST_F(HostBus, IndependentClientListsAndCalls) {
    start_service();
    const auto line = [&](const char *name) {
        return name + (" " + hex(u32(id_of(node('a'), name)))) + " hello ping\n";
    };
    const Ran ran = shell(RUST_PROGRAM " " + path + R"( demo hello '{"id":5,"msg":"hi"}' 2>&1)");
    EXPECT_EQ(ran.output,
              line("demo") + line("service") + "{\n\t\"ok\": 1,\n\t\"txt\": \"abcd\"\n}\nUbus return ErrorCode(4)\n");
    EXPECT_EQ(ran.code, 0);
}

// The installed `ubus` program against the daemon.
#include "bus_fixture.h"

using namespace hostbus;

namespace {

class Program : public HostBus {
  protected:
    std::string command(const std::string &arguments) const { return UBUS_PROGRAM " -s " + path + " " + arguments; }
    // What it prints, and its exit code at the end.
    std::string ubus(const std::string &arguments, const std::string &as_whom = "") const {
        const Ran ran = shell(as_whom + command(arguments) + " 2>&1");
        return ran.output + std::to_string(ran.code);
    }
};

TEST_F(Program, SeesTheBus) {
    EXPECT_EQ(ubus("list"), "0");
    start_service();
    const std::string line = R"({"id":-5,"big":4294967296,"t":true,"d":2.5,"n":null,"a":[1,"x"]})"
                             "\n";
    const std::string guest = "setpriv --reuid=nobody --regid=nogroup --clear-groups ";
    const bool root = shell(guest + "true").code == 0; // or else there is nobody to become
    struct {
        std::string arguments, output, as_whom = {};
    } const rows[] = {
        {"list", "demo\nservice\n0"},
        {"list 'serv*'", "service\n0"},
        {"list nosuch", "Command failed: Not found\n4"},
        {"-v list demo", "'demo' @" + hex(u32(id_of(node('a'), "demo"))) +
                             "\n\t\"hello\":{\"id\":\"Integer\",\"msg\":\"String\"}\n\t\"ping\":{}\n0"},
        {"-S call service echo '" + line + "'", line + "0"},
        {"-S call service three", "{\"n\":0}\n{\"n\":1}\n{\"n\":2}\n0"},
        {"-S call service none", "0"},
        {"-S call demo nosuch", "3"},
        {"call demo nosuch", "Command failed: ubus call demo nosuch (Method not found)\n253"},
        {"call nosuch ping", "Command failed: Not found\n4"},
        {"-t 1 call service silent", "Command failed: ubus call service silent (Request timed out)\n249"},
        {"-S call service later", "{\"late\":300}\n77"},
        {"send foo '{\"a\":1}'", "0"},
        {"send ubus.x", "Command failed: Permission denied\n6"},
        {"-t 1 wait_for demo", "0"},
        {"-t 1 wait_for never", "Command failed: Request timed out\n7"},
        {"list", "0", guest},
        {"list demo", "0", guest},
        {"send foo", "Command failed: Permission denied\n6", guest},
        {"listen foo", "Error while registering for event 'foo': Permission denied\n255", guest},
        {"monitor", "Command failed: Permission denied\n6", guest},
        {"list", "Failed to connect to ubus\n255", "setpriv --reuid=54321 --regid=nogroup --clear-groups "},
        {"-S -t 1 call service remove", "7"},
        {"-S -t 1 call service silent", "4"}};
    for (const auto &[arguments, output, as_whom] : rows)
        if (root || as_whom.empty()) {
            EXPECT_EQ(ubus(arguments, as_whom), output) << arguments;
        }
    start_service();
    EXPECT_EQ(ubus("-S -t 1 call service die"), "7");
    start_service();
    EXPECT_EQ(ubus("-S call service kill"), "10");
    start_daemon();
}

TEST_F(Program, WaitsAndWatches) {
    Node &a = node('a');
    run({{"a add demo", "0"}});
    const std::string fields = R"({"n":1})", client = hex(u32(__builtin_bswap32(a.local_id))),
                      output = folder + "/output";
    struct {
        std::string arguments, verb, what, expected;
    } const rows[] = {{"listen 'foo.*'", "send", "foo.bar", "{ \"foo.bar\": {\"n\":1} }\n"},
                      {"subscribe demo", "tell", "demo", "{ \"news\": {\"n\":1} }\n"},
                      {"monitor", "send", "foo.bar",
                       R"(data":{"id":"foo.bar","data":{"n":1}}})"
                       "\n-> " +
                           client}};
    for (const auto &row : rows) {
        const std::string line = "exec stdbuf -oL " + command(row.arguments) + " > " + output;
        Child watcher([&] { return execl("/bin/sh", "sh", "-c", line.c_str(), nullptr); });
        EXPECT_TRUE(wait_until([&] {
            verbs.at(row.verb)(a, row.what, fields);
            return read_file(output).find(row.expected) != std::string::npos;
        })) << read_file(output);
    }
    Child waiter([&] { return shell(command("-t 30 wait_for late")).code; });
    usleep(300000);
    ubus_add_object(&a, &object(a, "late"));
    EXPECT_EQ(waiter.end(), 0);
}

} // namespace

// The services of the module process and their faults, seen from their sockets.
#include <cerrno>
#include <chrono>
#include <fstream>
#include <poll.h>

#include "support/sim.h"

namespace {

using nlohmann::json;

class Connection {
  public:
    explicit Connection(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        error_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) ? errno : 0;
    }
    ~Connection() { close(fd_); }

    int error() const { return error_; }
    void write(const std::string &bytes) const {
        EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    // What one read gives within the limit: "" for nothing, "EOF" for the end.
    std::string read(int limit_ms = 5000) const {
        pollfd ready = {fd_, POLLIN, 0};
        if (poll(&ready, 1, limit_ms) < 1)
            return "";
        char chunk[65536];
        const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        return n > 0 ? std::string(chunk, size_t(n)) : "EOF";
    }
    std::string ask(const std::string &command) const {
        write(command + "\r\n");
        return read();
    }

  private:
    int fd_;
    int error_;
};

class Module : public testing::Test {
  protected:
    void SetUp() override { sim::call("reset"); }
    void TearDown() override { sim::call("reset"); }
};

const char at_path[] = "/tmp/atcmdsdk";
const char indication_path[] = "/tmp/atcmdsdkind";
const std::string ok = "\r\nOK\r\n";

TEST_F(Module, AnswersEachClientInOrder) {
    Connection one(at_path), two(at_path);
    one.write("AT+ECHO=1\r\nAT+ECHO=2\rAT+ECH");
    EXPECT_EQ(two.ask("AT+ECHO=3"), "\r\n+ECHO: 3\r\n" + ok);
    one.write("O=4\n");
    std::string replies;
    while (replies.size() < 3 * (12 + ok.size()) && replies.find("EOF") == std::string::npos)
        replies += one.read();
    EXPECT_EQ(replies, "\r\n+ECHO: 1\r\n" + ok + "\r\n+ECHO: 2\r\n" + ok + "\r\n+ECHO: 4\r\n" + ok);
    EXPECT_EQ(one.ask(std::string(5000, 'A')).substr(0, 9), "\r\nERROR\r\n");
    EXPECT_EQ(two.ask("ATE1"), ok);
    EXPECT_EQ(two.ask("AT"), "AT\r" + ok);
}

TEST_F(Module, FaultsOfReplies) {
    Connection at(at_path);
    sim::call("fault", {{"service", "at"}, {"match", "AT+ECHO=*"}, {"split", {3, 5}}, {"count", 1}});
    EXPECT_EQ(at.ask("AT+ECHO=1"), "\r\n+");
    EXPECT_EQ(at.read(), "EC");
    EXPECT_EQ(at.read(), "HO: 1\r\n" + ok);
    EXPECT_EQ(at.ask("AT+ECHO=2"), "\r\n+ECHO: 2\r\n" + ok);

    sim::call("fault", {{"service", "at"}, {"delay", 60}, {"nth", 2}, {"split", {{"every", 4}}}});
    EXPECT_EQ(at.ask("AT"), ok);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(at.ask("AT"), "\r\nOK");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    EXPECT_EQ(at.read(), "\r\n");

    sim::call("fault", {{"service", "at"}, {"error", "+CME ERROR: SIM busy"}, {"count", 1}});
    EXPECT_EQ(at.ask("AT+CFUN=0"), "\r\n+CME ERROR: SIM busy\r\n");
    EXPECT_EQ(at.ask("AT+CFUN?"), "\r\n+CFUN: 1\r\n" + ok);
    sim::call("fault", {{"service", "at"}, {"drop", true}, {"count", 1}});
    at.write("AT\r\n");
    EXPECT_EQ(at.read(30), "");
    sim::call("fault", {{"service", "at"}, {"hex", "000dff"}, {"close", true}});
    EXPECT_EQ(at.ask("AT"), std::string("\0\r\xff", 3));
    EXPECT_EQ(at.read(), "EOF");
}

TEST_F(Module, FaultsOfTheServer) {
    Connection at(at_path), lines(indication_path);
    const json frozen = sim::call("fault", {{"service", "at"}, {"freeze", true}});
    at.write("AT\r\n");
    EXPECT_EQ(Connection(at_path).error(), 0);
    EXPECT_EQ(at.read(30), "");
    EXPECT_EQ(sim::call("clear", frozen)["removed"], 1);
    EXPECT_EQ(at.read(), ok);
    sim::call("fault", {{"service", "at"}, {"refuse", true}});
    EXPECT_EQ(Connection(at_path).error(), ECONNREFUSED);
    EXPECT_EQ(at.ask("AT"), ok);
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(Connection(at_path).error(), ENOENT);
    EXPECT_EQ(at.read(), "EOF");
    sim::call("clear", {{"service", "at"}});
    EXPECT_EQ(Connection(at_path).ask("AT"), ok);
    sim::call("fault", {{"service", "atind"}, {"flood", "+X\r\n"}});
    EXPECT_GT(lines.read().size(), 4000u);
    EXPECT_GT(lines.read().size(), 4000u);
    sim::call("fault", {{"service", "atind"}, {"close", true}});
    sim::call("clear");
    while (lines.read() != "EOF")
        continue;
    Connection again(indication_path);
    EXPECT_EQ(again.read(30), "");
}

TEST_F(Module, LinesReachEveryClientInPieces) {
    Connection quick(indication_path), slow(indication_path);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}, {"count", 2}});
    // Answered when the last piece is out, so it takes a reader.
    Connection control(std::string(getenv("TAVRIK_SIM")) + "/control");
    control.write(R"({"verb": "line", "args": {"text": "\r\n+CREG: 1\r\n", "cuts": [3, 9]}})"
                  "\n");
    for (const char *piece : {"\r\n+", "CREG: ", "1\r\n"})
        EXPECT_EQ(quick.read(), piece);
    EXPECT_EQ(control.read(30), "");
    for (const char *piece : {"\r\n+", "CREG: ", "1\r\n"})
        EXPECT_EQ(slow.read(), piece);
    EXPECT_EQ(json::parse(control.read())["result"]["clients"], 2);
    sim::call("rules", {{"add", {{{"command", "AT+GO"}, {"later", {{{"after", 3600000}, {"line", "+CREG: 5"}}}}}}}});
    EXPECT_EQ(Connection(at_path).ask("AT+GO"), ok);
    EXPECT_EQ(quick.read(30), "");
    sim::call("advance", {{"ms", 3600000}});
    EXPECT_EQ(quick.read(), "\r\n+CREG: 5\r\n");
}

TEST_F(Module, ContextsGoUpAndDown) {
    Connection lines(indication_path);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    const auto context = [](int cid, int state) {
        return sim::call("context", {{"cid", cid}, {"state", state}})["contexts"].get<std::string>();
    };
    EXPECT_EQ(context(5, 1), "5");
    EXPECT_EQ(lines.read(), "\r\n+ZCONSTAT: 1,5\r\n");
    EXPECT_EQ(context(15, 1), "5,15");
    EXPECT_EQ(lines.read(), "\r\n+ZCONSTAT: 1,15\r\n");
    EXPECT_EQ(context(5, 1), "15,5"); // is up already
    EXPECT_EQ(context(5, 0), "15");
    EXPECT_EQ(lines.read(), "\r\n+ZCONSTAT: 0,5\r\n");
    EXPECT_EQ(context(15, 0), "");
    EXPECT_EQ(lines.read(), "\r\n+ZCONSTAT: 0,15\r\n");
    for (const auto &[state, line] :
         {std::pair(1, "\r\n+ZCONSTAT: NW PDN ACT 3\r\n"), {0, "\r\n+ZCONSTAT: NW PDN DEACT 3\r\n"}}) {
        sim::call("context", {{"cid", 3}, {"state", state}, {"words", true}});
        EXPECT_EQ(lines.read(), line);
    }
}

TEST_F(Module, ControlSurvivesBadRequestsAndKeepsOrder) {
    Connection control(std::string(getenv("TAVRIK_SIM")) + "/control");
    const std::pair<std::string, const char *> bad[] = {
        {"{\"verb\": \"state\", \"args\": " + std::string(100000, '[') + "\n", "nested too deeply"},
        {"[1\n", "parse error"},
        {"{\"args\": {}}\n", "not an object with a \"verb\""},
        {"{\"verb\": \"state\", \"arg\": {}}\n", "unknown key \"arg\""},
        {"{\"verb\": \"stat\"}\n", "unknown verb \"stat\""},
        {"{\"verb\": \"state\", \"args\": {\"mod\": 1}}\n", "unknown field \"mod\""},
        {"{\"verb\": \"fault\", \"args\": {\"service\": \"bus\", \"delay\": 1}}\n", "\"bus\" does not know \"delay\""},
    };
    for (auto &[request, error] : bad) {
        control.write(request);
        EXPECT_NE(json::parse(control.read())["error"].get<std::string>().find(error), std::string::npos) << error;
    }
    control.write("{\"verb\":\"wait\",\"args\":{\"kind\":\"none\",\"limit\":20}}\n{\"verb\":\"verbs\"}\n");
    std::string replies;
    while (std::count(replies.begin(), replies.end(), '\n') < 2)
        replies += control.read();
    EXPECT_EQ(replies.rfind("{\"error\":\"only 0 of 1 in time\"}\n{\"result\":", 0), 0u) << replies;
}

TEST_F(Module, RecordsInOrderWhatTheProgramDid) {
    { Connection(at_path).ask("AT+ECHO=first"); }
    std::ofstream("/dev/kmsg") << "second\n";
    std::vector<std::string> seen;
    const json record = sim::call("record", {{"clear", true}});
    for (const json &entry : record["entries"])
        seen.push_back(entry["kind"].get<std::string>() + " " + entry["text"].get<std::string>());
    ASSERT_GE(seen.size(), 3u);
    EXPECT_EQ(seen[0], "connect at");
    EXPECT_EQ(seen[1], "at AT+ECHO=first");
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "kmsg second"), 1);
    EXPECT_EQ(sim::call("record", {{"kind", "at"}})["entries"], json::array());
}

// Whatever happened to the bus: a daemon that answers, and the services on it, when the call returns.
TEST_F(Module, BusComesBackWithItsServices) {
    const pid_t first = sim::call("state")["pids"]["bus"];
    sim::call("fault", {{"service", "bus"}, {"restart", true}});
    const pid_t second = sim::call("state")["pids"]["bus"];
    EXPECT_NE(first, second);
    kill(second, SIGKILL);
    sim::call("wait", {{"kind", "service"}, {"text", "bus ended by signal 9"}});
    EXPECT_EQ(sim::call("state")["pids"]["bus"], 0);
    sim::call("reset");
    sim::call("fault", {{"service", "bus"}, {"freeze", true}});
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    sim::call("clear");
    const pid_t last = sim::call("state")["pids"]["bus"];
    EXPECT_EQ(kill(last, 0), 0);
    for (const char *service : {"ril", "tavrik.sim"})
        EXPECT_TRUE(sim::call("state")["services"][service]["connected"]) << service;
}

} // namespace

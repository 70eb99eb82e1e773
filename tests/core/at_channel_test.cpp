// The AT channel against a server that answers in pieces, late, too much, not at all, or goes away.
#include "core/fake_at_server.h"
#include "support/sim.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/syscall.h>
#include <thread>

namespace {
thread_local bool g_endless_input = false;
}

// No server on the same machine sends faster than the library reads, so input without end comes from here.
extern "C" __attribute__((visibility("default"))) ssize_t read(int descriptor, void *buffer, size_t size) {
    if (!g_endless_input)
        return syscall(SYS_read, descriptor, buffer, size);
    memset(buffer, 'x', size);
    return ssize_t(size);
}

namespace {

// What the server does with a command that it has read: answers one piece after the other, or one of these. Without
// any it does not read.
using Steps = std::vector<std::string>;
const std::string hang_up = "hang up", late = "in two seconds", signals = "signals until the call returns";
const std::string huge = "AT" + std::string(1 << 20, 'x'); // more than the socket takes at once
using std::chrono::steady_clock;

long ms_since(steady_clock::time_point start) {
    return long((steady_clock::now() - start) / std::chrono::milliseconds(1));
}

class AtChannel : public testing::Test {
  protected:
    AtChannel() { connect(); }
    ~AtChannel() override { Tavrik_AT_Deinit(); }
    void connect() {
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        Tavrik_AT_Deinit();
        EXPECT_EQ(Tavrik_AT_Init(), 0);
        EXPECT_TRUE(server_.accept_client());
    }
    // What a command ends with: "RESULT RESPONSE", and "| TEXT" of what is logged.
    std::string send(const std::string &command, const Steps &steps, int timeout_ms = 20000,
                     const char *expected = "OK", int size = 2048) {
        std::atomic<bool> returned{false};
        std::thread server([&, caller = pthread_self()] {
            const char *const end = strchr("\r\n", command.back()) ? "" : "\r\n";
            EXPECT_TRUE(steps.empty() || server_.command() == command + end);
            for (const std::string &step : steps)
                if (step == hang_up)
                    server_.hang_up();
                else if (step == late)
                    sleep(2);
                else if (step == signals)
                    for (; !returned; usleep(10000))
                        pthread_kill(caller, SIGUSR1);
                else
                    server_.answer(step);
        });
        std::string response(size_t(size), '#');
        response += '!';
        int result = 0;
        const std::string log = sim::log_of([&] {
            const auto start = steady_clock::now();
            result = Tavrik_AT_Send(command.c_str(), expected, response.data(), size, timeout_ms);
            ms_ = ms_since(start);
        });
        returned = true;
        server.join();
        EXPECT_EQ(response.back(), '!') << "written past the buffer";
        return std::to_string(result) + " " + response.c_str() +
               std::regex_replace(log, std::regex("^Tavrik_AT_Send: (.*)\n$"), "| $1");
    }

    FakeAtServer server_;
    long ms_ = 0; // that the command took
};

TEST_F(AtChannel, CollectsTheAnswerInTime) {
    const std::string long_line(600, 'x'), msd = "AT*ECALLMSD=\"" + std::string(280, 'A') + "\"";
    const std::string no_room = "| The received data length is insufficient";
    const struct {
        std::string command;
        Steps steps;
        std::string outcome;
        const char *expected = "OK";
        int size = 2048, timeout_ms = 20000, at_least = 0, below = 30000;
    } cases[] = {
        {"AT", {"\r\nOK\r\n"}, "0 \r\nOK\r\n"},
        {"AT+CEREG?", {"+CEREG: 0,1\r\n", "\r\nOK\r\n"}, "0 +CEREG: 0,1\r\n\r\nOK\r\n"},
        {"AT+CEREG?", {"+CEREG: 0,1\r\n"}, "0 +CEREG: 0,1\r\n", "+CEREG:"},
        {"AT", {"ERROR OK"}, "0 ERROR OK"}, // the expected text goes before an error
        {"AT+CEREG?", {"ERROR\r\n"}, "-1 ERROR\r\n| response error", "+CEREG:"},
        {"AT", {"+CME ERROR: 10\r\n"}, "-1 +CME ERROR: 10\r\n| response error"},
        {"AT", {"a", "b", "OK"}, "-1 ab"}, // two pieces are waited for, and each is looked at by itself
        {"AT", {"O", "K"}, "-1 OK"},
        {"AT", {"ERR", "OR"}, "-1 ERROR"},
        {"AT", {"\r\nOK\r\n"}, "0 \r\nOK\r\n", "OK", 7},
        {"AT", {"\r\nOK\r\n"}, "-1 " + no_room, "OK", 6}, // without one byte free
        {"AT", {"abcd", "\r\nOK"}, "-1 abcd" + no_room, "OK", 8},
        {"AT", {long_line + "OK"}, "0 " + long_line + "OK"},
        {"AT\r", {"OK"}, "0 OK"},
        {"AT\n", {"OK"}, "0 OK"},
        {msd, {"OK"}, "0 OK"},
        {huge, {"OK"}, "0 OK"},
        {"AT", {signals}, "-1 | select error:4"},
        {"AT", {hang_up}, "-1 | read error!"},
        {"AT", {""}, "-1 | time out", "OK", 2048, 1999, 995},
        {"AT", {""}, "-1 | time out", "OK", 2048, 999, 0, 900},
        {"AT", {""}, "-1 | time out", "OK", 2048, 0, 0, 900},
        {"AT", {""}, "-1 | time out", "OK", 2048, -999, 0, 900},
        {"AT", {""}, "-1 | select error:22", "OK", 2048, -1000, 0, 900},
        {"AT", {late, "half"}, "-1 half| time out", "OK", 2048, 3000, 2995, 4900}, // both waits share the limit
        {huge, {}, "-1 | send at fail errno 11", "OK", 2048, 1000, 995},
    };
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    for (const auto &test : cases) {
        connect();
        const std::string old = std::string(3000, 'x') + "OK\r\n"; // of an earlier command, and discarded
        EXPECT_EQ(::send(server_.client(), old.data(), old.size(), 0), ssize_t(old.size()));
        EXPECT_EQ(send(test.command, test.steps, test.timeout_ms, test.expected, test.size), test.outcome);
        EXPECT_GE(ms_, test.at_least);
        EXPECT_LT(ms_, test.below) << test.outcome;
    }
}

TEST_F(AtChannel, SendsNothing) {
    char response[] = "same";
    const std::string log = sim::log_of([&] {
        for (const int result :
             {Tavrik_AT_Send(nullptr, "OK", response, 5, 0), Tavrik_AT_Send("AT", nullptr, response, 5, 0),
              Tavrik_AT_Send("AT", "OK", nullptr, 5, 0), Tavrik_AT_Send("A", "OK", response, 5, 0),
              Tavrik_AT_Send("", "OK", response, 5, 0), Tavrik_AT_Send("AT", "OK", response, 0, 0),
              Tavrik_AT_Send("AT", "OK", response, -5, 0)})
            EXPECT_EQ(result, -1);
    });
    EXPECT_EQ(std::regex_replace(log, std::regex("Tavrik_AT_Send: input error\n"), "."), ".......");
    EXPECT_STREQ(response, "same");
    g_endless_input = true; // which is given up after a second at the least
    EXPECT_EQ(send("AT", {}, 0), "-1 | time out");
    g_endless_input = false;
    EXPECT_GE(ms_, 995);
    EXPECT_EQ(server_.command(0), "");
}

TEST_F(AtChannel, IsOneConnectionUntilItIsClosed) {
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(send("AT", {hang_up}), "-1 | read error!");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(send("AT", {}), "-1 | send at fail errno 32");
        EXPECT_EQ(Tavrik_AT_Init(), 0) << "open still, for all that the library knows";
    }
    pollfd second = {server_.listener(), POLLIN, 0};
    EXPECT_EQ(poll(&second, 1, 100), 0);
    Tavrik_AT_Deinit();
    EXPECT_EQ(send("AT", {}), "-1 | fd error");
    connect();
    EXPECT_EQ(send("AT", {"OK"}), "0 OK");
    Tavrik_AT_Deinit();
    second = {server_.client(), 0, 0};
    EXPECT_EQ(poll(&second, 1, 0), 1) << "closed";
}

TEST(AtSocket, TellsWhyItCannotConnect) {
    const std::string path = FakeAtServer::kPath, cannot = "Error connect to socket " + path + ": ";
    testing::internal::CaptureStderr();
    EXPECT_EQ(at_socket_init(nullptr), -1);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_AT_Init(), -1); }),
              "Tavrik_AT_Init: error: opening device: " + path + "\n");
    FakeAtServer server(0); // that accepts nobody
    const int first = at_socket_init(FakeAtServer::kPath);
    EXPECT_NE(fcntl(first, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(first, F_GETFD) & FD_CLOEXEC, 0);
    const auto start = steady_clock::now();
    EXPECT_EQ(at_socket_init(FakeAtServer::kPath), -1);
    EXPECT_GE(ms_since(start), 1995);
    EXPECT_LT(ms_since(start), 30000);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              cannot + "No such file or directory\n" + cannot + "Resource temporarily unavailable\n");
    for (const int descriptor : {first, -1, 0})
        at_socket_deinit(descriptor);
    EXPECT_EQ(fcntl(first, F_GETFD), -1);
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0) << "0 counts as closed";
}

} // namespace

// The AT channel against a server that answers in pieces, late, too much, not at all, or goes away.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <vector>

#include "core/fake_at_server.h"
#include "tavrik_sdk.h"

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

using Pieces = std::vector<std::string>;

struct Result {
    int status;
    std::string response, log;
    long ms;
};

// The messages that `run` logs on this thread, each as "FUNCTION: TEXT\n".
template <class Run>
std::string log_of(Run run) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    return std::regex_replace(testing::internal::GetCapturedStdout(), std::regex("\\[sdklog err:(\\w+):[0-9]+\\]:"),
                              "$1: ");
}

Result send(const std::string &command, int timeout_ms = 20000, const char *expected = "OK", int size = 2048) {
    Result result;
    std::vector<char> response(size_t(size) + 8, '#');
    const auto start = std::chrono::steady_clock::now();
    result.log =
        log_of([&] { result.status = Tavrik_AT_Send(command.c_str(), expected, response.data(), size, timeout_ms); });
    result.ms =
        long(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    EXPECT_EQ(std::string(&response[size_t(size)], 8), "########") << "written past the buffer";
    response.back() = 0;
    result.response = response.data();
    return result;
}

class AtChannel : public testing::Test {
  protected:
    AtChannel() {
        signal(SIGPIPE, SIG_DFL);
        EXPECT_EQ(Tavrik_AT_Init(), 0);
        EXPECT_TRUE(server_.accept_client());
    }
    ~AtChannel() { Tavrik_AT_Deinit(); }

    FakeAtServer server_;
};

TEST_F(AtChannel, CollectsTheAnswer) {
    const std::string long_line(600, 'x'), failed = "Tavrik_AT_Send: ";
    const struct {
        const char *what, *command, *expected;
        int size;
        Pieces answer;
        int status;
        std::string response, log;
    } cases[] = {
        {"plain", "AT", "OK", 512, {"\r\nOK\r\n"}, 0, "\r\nOK\r\n", ""},
        {"two pieces", "AT+CEREG?", "OK", 512, {"+CEREG: 0,1\r\n", "\r\nOK\r\n"}, 0, "+CEREG: 0,1\r\n\r\nOK\r\n", ""},
        {"a prefix ends it", "AT+CEREG?", "+CEREG:", 512, {"+CEREG: 0,1\r\n"}, 0, "+CEREG: 0,1\r\n", ""},
        {"the expected text goes before an error", "AT", "OK", 512, {"ERROR OK"}, 0, "ERROR OK", ""},
        {"error", "AT+CEREG?", "+CEREG:", 512, {"ERROR\r\n"}, -1, "ERROR\r\n", failed + "response error\n"},
        {"error number",
         "AT",
         "OK",
         512,
         {"+CME ERROR: 10\r\n"},
         -1,
         "+CME ERROR: 10\r\n",
         failed + "response error\n"},
        {"third piece", "AT", "OK", 512, {"a", "b", "OK"}, -1, "ab", ""},
        {"text over two pieces", "AT", "OK", 512, {"O", "K"}, -1, "OK", ""},
        {"error over two pieces", "AT", "OK", 512, {"ERR", "OR"}, -1, "ERROR", ""},
        {"one byte free", "AT", "OK", 7, {"\r\nOK\r\n"}, 0, "\r\nOK\r\n", ""},
        {"exact room", "AT", "OK", 6, {"\r\nOK\r\n"}, -1, "", failed + "The received data length is insufficient\n"},
        {"no room later",
         "AT",
         "OK",
         8,
         {"abcd", "\r\nOK"},
         -1,
         "abcd",
         failed + "The received data length is insufficient\n"},
        {"longer than a chunk", "AT", "OK", 1024, {long_line + "OK"}, 0, long_line + "OK", ""},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        std::thread script([&] {
            EXPECT_EQ(server_.command(), std::string(test.command) + "\r\n");
            for (const std::string &piece : test.answer)
                server_.answer(piece);
        });
        const Result result = send(test.command, 20000, test.expected, test.size);
        script.join();
        EXPECT_EQ(result.status, test.status);
        EXPECT_EQ(result.response, test.response);
        EXPECT_EQ(result.log, test.log);
    }
}

TEST_F(AtChannel, FramesTheCommand) {
    const std::string msd = "AT*ECALLMSD=\"" + std::string(280, 'A') + "\"", huge = "AT" + std::string(1 << 20, 'x');
    const struct {
        std::string command, sent;
    } cases[] = {{"AT+CEREG?", "AT+CEREG?\r\n"}, {"AT\r", "AT\r"}, {"AT\n", "AT\n"}, {msd, msd + "\r\n"}};
    for (const auto &test : cases) {
        std::thread script([&] {
            EXPECT_EQ(server_.command(), test.sent);
            server_.answer("OK");
        });
        EXPECT_EQ(send(test.command).status, 0);
        script.join();
    }
    // More than the socket takes at once.
    std::thread script([&] {
        EXPECT_TRUE(server_.command() == huge + "\r\n");
        server_.answer("OK");
    });
    EXPECT_EQ(send(huge).status, 0);
    script.join();
    const Result unread = send(huge, 1000);
    EXPECT_EQ(unread.log, "Tavrik_AT_Send: send at fail errno 11\n");
    EXPECT_GE(unread.ms, 995);
}

TEST_F(AtChannel, RefusesBadArguments) {
    char response[] = "same";
    const struct {
        const char *command, *expected;
        char *response;
        int size;
    } cases[] = {{nullptr, "OK", response, 5}, {"AT", nullptr, response, 5}, {"AT", "OK", nullptr, 5},
                 {"A", "OK", response, 5},     {"", "OK", response, 5},      {"AT", "OK", response, 0},
                 {"AT", "OK", response, -5}};
    for (const auto &test : cases)
        EXPECT_EQ(
            log_of([&] { EXPECT_EQ(Tavrik_AT_Send(test.command, test.expected, test.response, test.size, 1000), -1); }),
            "Tavrik_AT_Send: input error\n");
    EXPECT_STREQ(response, "same");
    EXPECT_EQ(server_.command(0), "");
}

TEST_F(AtChannel, KeepsItsTimeLimit) {
    const struct {
        int timeout_ms, at_least;
        const char *log;
    } cases[] = {{1999, 995, "time out"},
                 {999, 0, "time out"},
                 {0, 0, "time out"},
                 {-999, 0, "time out"},
                 {-1000, 0, "select error:22"}};
    for (const auto &test : cases) {
        const Result result = send("AT", test.timeout_ms);
        EXPECT_EQ(result.status, -1);
        EXPECT_EQ(result.log, std::string("Tavrik_AT_Send: ") + test.log + "\n") << test.timeout_ms;
        EXPECT_GE(result.ms, test.at_least);
        EXPECT_LT(result.ms, test.at_least ? 30000 : 900) << test.timeout_ms;
        EXPECT_EQ(server_.command(), "AT\r\n");
    }
    // Both waits share one limit.
    std::chrono::steady_clock::time_point half;
    std::thread script([&] {
        server_.command();
        usleep(2000000);
        half = std::chrono::steady_clock::now();
        server_.answer("half");
    });
    const Result result = send("AT", 3000);
    const auto behind_half = std::chrono::steady_clock::now() - half;
    script.join();
    EXPECT_EQ(result.log, "Tavrik_AT_Send: time out\n");
    EXPECT_EQ(result.response, "half");
    EXPECT_GE(result.ms, 2995);
    EXPECT_LT(behind_half, std::chrono::milliseconds(2900));
}

TEST_F(AtChannel, DiscardsOldInput) {
    const std::string late = std::string(3000, 'x') + "OK\r\n";
    EXPECT_EQ(::send(server_.client(), late.data(), late.size(), 0), ssize_t(late.size()));
    std::thread script([&] {
        server_.command();
        server_.answer("new OK");
    });
    EXPECT_EQ(send("AT").response, "new OK");
    script.join();

    // Input without end is given up after a second at the least, and the command stays here.
    g_endless_input = true;
    const Result result = send("AT", 0);
    g_endless_input = false;
    EXPECT_EQ(result.log, "Tavrik_AT_Send: time out\n");
    EXPECT_GE(result.ms, 995);
    EXPECT_EQ(server_.command(0), "");
}

TEST_F(AtChannel, FailsWhenASignalComes) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    std::thread script([&] {
        server_.command();
        while (!done) {
            usleep(10000);
            pthread_kill(self, SIGUSR1);
        }
    });
    EXPECT_EQ(send("AT").log, "Tavrik_AT_Send: select error:4\n");
    done = true;
    script.join();
}

TEST_F(AtChannel, OutlivesTheServer) {
    std::thread script([&] {
        server_.command();
        server_.hang_up();
    });
    EXPECT_EQ(send("AT").log, "Tavrik_AT_Send: read error!\n");
    script.join();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(send("AT").log, "Tavrik_AT_Send: send at fail errno 32\n");
    EXPECT_EQ(Tavrik_AT_Init(), 0) << "open still, for all that the library knows";
    Tavrik_AT_Deinit();
    EXPECT_EQ(send("AT").log, "Tavrik_AT_Send: fd error\n");
    EXPECT_EQ(Tavrik_AT_Init(), 0);
    EXPECT_TRUE(server_.accept_client());
    std::thread again([&] {
        server_.command();
        server_.answer("OK");
    });
    EXPECT_EQ(send("AT").status, 0);
    again.join();
}

TEST_F(AtChannel, OpensOneConnection) {
    EXPECT_EQ(Tavrik_AT_Init(), 0);
    pollfd second = {server_.listener(), POLLIN, 0};
    EXPECT_EQ(poll(&second, 1, 100), 0);
    Tavrik_AT_Deinit();
    Tavrik_AT_Deinit();
    char byte;
    EXPECT_EQ(read(server_.client(), &byte, 1), 0) << "closed";
}

// Threads send while another one closes and opens the channel: each answer belongs to its command.
TEST_F(AtChannel, ServesThreads) {
    std::atomic<bool> stop{false};
    std::atomic<int> right{0}, wrong{0}, failed{0};
    std::thread server([&] {
        std::vector<pollfd> sockets = {{server_.listener(), POLLIN, 0}, {server_.client(), POLLIN, 0}};
        while (poll(sockets.data(), sockets.size(), 20) >= 0 && !stop) {
            if (sockets[0].revents)
                sockets.push_back({accept(server_.listener(), nullptr, nullptr), POLLIN, 0});
            for (size_t i = 1; i < sockets.size(); ++i) {
                char command[64];
                const ssize_t got = sockets[i].revents ? read(sockets[i].fd, command, sizeof command) : -1;
                if (got > 0) {
                    const std::string answer = std::string(command, size_t(got)) + "OK\r\n";
                    ::send(sockets[i].fd, answer.data(), answer.size(), MSG_NOSIGNAL);
                } else if (got == 0) {
                    if (sockets[i].fd != server_.client())
                        close(sockets[i].fd);
                    sockets[i].fd = -1;
                }
            }
        }
        for (size_t i = 1; i < sockets.size(); ++i)
            if (sockets[i].fd != server_.client())
                close(sockets[i].fd);
    });
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 300; ++i) {
                const std::string command = "AT+ECHO=" + std::to_string(thread) + "-" + std::to_string(i);
                char response[64];
                if (Tavrik_AT_Send(command.c_str(), "OK", response, sizeof response, 20000))
                    ++failed;
                else
                    ++(response == command + "\r\nOK\r\n" ? right : wrong);
            }
        });
    for (int i = 0; i < 50; ++i) {
        Tavrik_AT_Deinit();
        EXPECT_EQ(Tavrik_AT_Init(), 0);
        usleep(200);
    }
    for (std::thread &thread : threads)
        thread.join();
    stop = true;
    server.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(right, 0);
    EXPECT_EQ(right + failed, 1200);
}

TEST(AtSocket, TellsWhyItCannotConnect) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(at_socket_init("/tmp/no/such/socket"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error connect to socket /tmp/no/such/socket: No such file or directory\n");
    EXPECT_EQ(at_socket_init(nullptr), -1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_AT_Init(), -1); }),
              "Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\n");
    testing::internal::GetCapturedStderr();
}

TEST(AtSocket, GivesUpOnAServerThatAcceptsNobody) {
    FakeAtServer server(0);
    const int first = at_socket_init(FakeAtServer::kPath);
    ASSERT_GE(first, 0);
    EXPECT_NE(fcntl(first, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(first, F_GETFD) & FD_CLOEXEC, 0);
    const auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStderr();
    EXPECT_EQ(at_socket_init(FakeAtServer::kPath), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error connect to socket /tmp/atcmdsdk: Resource temporarily unavailable\n");
    const auto passed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(passed, std::chrono::milliseconds(1995));
    EXPECT_LT(passed, std::chrono::seconds(30));
    at_socket_deinit(first);
    EXPECT_EQ(fcntl(first, F_GETFD), -1);
    at_socket_deinit(-1);
    at_socket_deinit(0);
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0) << "0 counts as closed";
}

} // namespace

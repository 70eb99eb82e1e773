// An AT command server that does what a test says, on the path that the library connects to.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class FakeAtServer {
  public:
    explicit FakeAtServer(int backlog = 8, const char *path = kPath) : path_(path) {
        sockaddr_un address = {AF_UNIX, {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_, backlog), 0);
    }
    ~FakeAtServer() {
        hang_up();
        close(listener_);
        unlink(path_.c_str());
    }

    static constexpr char kPath[] = "/tmp/atcmdsdk";

    int listener() const { return listener_; }
    int client() const { return client_; }
    bool accept_client() {
        hang_up();
        pollfd caller = {listener_, POLLIN, 0};
        if (poll(&caller, 1, 20000) > 0)
            client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        return client_ >= 0;
    }
    void hang_up() {
        if (client_ >= 0)
            close(client_);
        client_ = -1;
    }

    // What the client has sent, once it ends in a line end; what there is when no more comes for `ms`.
    std::string command(int ms = 20000) {
        std::string text;
        char piece[4096];
        pollfd input = {client_, POLLIN, 0};
        while ((text.empty() || !strchr("\r\n", text.back())) && poll(&input, 1, ms) > 0) {
            const ssize_t got = read(client_, piece, sizeof piece);
            if (got <= 0)
                break;
            text.append(piece, size_t(got));
        }
        return text;
    }

    // Sends one piece of an answer, once the client has read the one before: it comes in a read of its own.
    void answer(const std::string &piece) {
        int unread = 0;
        for (int ms = 0; ms < 20000 && !ioctl(client_, SIOCOUTQ, &unread) && unread > 0; ++ms)
            usleep(1000);
        EXPECT_EQ(send(client_, piece.data(), piece.size(), MSG_NOSIGNAL), ssize_t(piece.size()));
    }

  private:
    const std::string path_;
    const int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int client_ = -1;
};

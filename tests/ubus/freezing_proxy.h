// Stands between the library and the bus daemon and stops relaying at a chosen place of the daemon's stream, for all
// connections at once, as a daemon does that is stopped there.
#pragma once

#include <arpa/inet.h>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

class FreezingProxy {
  public:
    // Takes the daemon's place at `path` until its end.
    explicit FreezingProxy(const std::string &path) : path_(path), real_(path + ".real") {
        EXPECT_EQ(rename(path_.c_str(), real_.c_str()), 0);
        EXPECT_EQ(open(path_, bind, listener_), 0);
        EXPECT_EQ(listen(listener_, 64), 0);
        acceptor_ = std::thread([this] {
            std::vector<std::thread> relays;
            for (int client; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
                relays.emplace_back([this, client] { relay(client); });
            for (std::thread &relay : relays)
                relay.join();
        });
    }
    ~FreezingProxy() {
        shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        close(listener_);
        rename(real_.c_str(), path_.c_str());
    }
    FreezingProxy(const FreezingProxy &) = delete;
    FreezingProxy &operator=(const FreezingProxy &) = delete;

    // The next connection freezes everything once `whole` messages, and half of one more if asked, have passed.
    void freeze_after(int whole, bool half) {
        const std::lock_guard lock(mutex_);
        whole_ = whole;
        half_ = half;
    }
    // Were they frozen?
    bool thaw() {
        const std::lock_guard lock(mutex_);
        whole_ = -1;
        thawed_.notify_all();
        return std::exchange(frozen_, false);
    }

  private:
    static int open(const std::string &path, int (*use)(int, const sockaddr *, socklen_t), int &fd) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return use(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    }
    static bool forward(int to, const char *bytes, size_t length) {
        return send(to, bytes, length, MSG_NOSIGNAL) == ssize_t(length);
    }
    void wait(std::unique_lock<std::mutex> &lock) {
        thawed_.wait(lock, [this] { return !frozen_; });
    }

    void relay(int client) {
        int daemon;
        const bool connected = open(real_, connect, daemon) == 0;
        std::thread requests([&] {
            char chunk[65536];
            for (ssize_t n; connected && (n = read(client, chunk, sizeof chunk)) > 0;) {
                std::unique_lock lock(mutex_);
                wait(lock);
                if (!forward(daemon, chunk, size_t(n)))
                    break;
            }
            shutdown(daemon, SHUT_RDWR);
        });
        std::vector<char> message(12); // its head, with the length
        for (int passed = 0; recv(daemon, message.data(), 12, MSG_WAITALL) == 12; passed++) {
            uint32_t head;
            memcpy(&head, message.data() + 8, 4);
            const size_t length = 8 + (ntohl(head) & 0xffffff);
            message.resize(length);
            if (length > 12 && recv(daemon, message.data() + 12, length - 12, MSG_WAITALL) < 0)
                break;
            std::unique_lock lock(mutex_);
            wait(lock);
            frozen_ = passed == whole_;
            const size_t before = !frozen_ ? length : half_ ? length / 2 : 0;
            bool open = forward(client, message.data(), before);
            wait(lock);
            open = open && forward(client, message.data() + before, length - before);
            if (!open)
                break;
        }
        shutdown(client, SHUT_RDWR);
        requests.join();
        close(client);
        close(daemon);
    }

    const std::string path_, real_;
    int listener_;
    std::thread acceptor_;
    std::mutex mutex_; // guards what follows
    std::condition_variable thawed_;
    bool frozen_ = false, half_ = false;
    int whole_ = -1;
};

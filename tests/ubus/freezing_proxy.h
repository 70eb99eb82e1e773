// Stands between the library and the bus daemon and stops relaying at a chosen place of the daemon's stream, for all
// connections at once, as a daemon does that is stopped there.
#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <list>
#include <poll.h>
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
        if (rename(path_.c_str(), real_.c_str()))
            ADD_FAILURE() << path_ << ": " << strerror(errno);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const sockaddr_un address = name(path_);
        if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) || listen(listener_, 64))
            ADD_FAILURE() << path_ << ": " << strerror(errno);
        thread_ = std::thread([this] { run(); });
    }
    ~FreezingProxy() {
        stop_ = true;
        thread_.join();
        close(listener_);
        rename(real_.c_str(), path_.c_str());
    }
    FreezingProxy(const FreezingProxy &) = delete;
    FreezingProxy &operator=(const FreezingProxy &) = delete;

    // The next connection freezes everything once `whole` messages, and half of one more if asked, have passed.
    void freeze_after(int whole, bool half) {
        half_ = half;
        whole_ = whole;
    }
    void thaw() {
        whole_ = -1;
        frozen_ = false;
    }
    bool frozen() const { return frozen_; }

  private:
    struct Relay {
        int client, daemon;
        std::string pending; // of the daemon's stream
        int passed = 0;
    };

    static sockaddr_un name(const std::string &path) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return address;
    }

    void accept_one() {
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            return;
        const int daemon = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = name(real_);
        if (connect(daemon, reinterpret_cast<const sockaddr *>(&address), sizeof address)) {
            close(client);
            close(daemon);
            return;
        }
        relays_.push_back({client, daemon, {}, 0});
    }

    // Passes on the daemon's whole messages up to the place where all stops.
    void pass(Relay &relay) {
        while (!frozen_ && relay.pending.size() >= 12) {
            uint32_t head;
            memcpy(&head, relay.pending.data() + 8, 4);
            const size_t length = 8 + (ntohl(head) & 0xffffff);
            if (relay.pending.size() < length)
                return;
            size_t out = length;
            if (relay.passed == whole_) {
                out = half_ ? length / 2 : 0;
                frozen_ = true;
            }
            if (out && send(relay.client, relay.pending.data(), out, MSG_NOSIGNAL) < 0)
                out = relay.pending.size();
            relay.pending.erase(0, out);
            if (frozen_)
                relay.passed = 1000; // what is left of the stream goes out as it stands after the thaw
            else
                relay.passed++;
        }
    }

    void run() {
        while (!stop_) {
            std::vector<pollfd> fds = {{listener_, POLLIN, 0}};
            for (Relay &relay : relays_) {
                fds.push_back({relay.client, POLLIN, 0});
                fds.push_back({relay.daemon, POLLIN, 0});
            }
            if (frozen_) {
                usleep(1000);
                continue;
            }
            poll(fds.data(), fds.size(), 10);
            size_t at = 1;
            for (auto relay = relays_.begin(); relay != relays_.end(); at += 2) {
                char chunk[65536];
                bool ended = false;
                if (fds[at].revents) {
                    const ssize_t n = read(relay->client, chunk, sizeof chunk);
                    ended = n <= 0 || send(relay->daemon, chunk, size_t(n), MSG_NOSIGNAL) < 0;
                }
                if (fds[at + 1].revents) {
                    const ssize_t n = read(relay->daemon, chunk, sizeof chunk);
                    if (n > 0)
                        relay->pending.append(chunk, size_t(n));
                    ended = ended || n <= 0;
                }
                if (relay->passed >= 1000 && !relay->pending.empty()) {
                    send(relay->client, relay->pending.data(), relay->pending.size(), MSG_NOSIGNAL);
                    relay->pending.clear();
                } else {
                    pass(*relay);
                }
                if (ended) {
                    close(relay->client);
                    close(relay->daemon);
                    relay = relays_.erase(relay);
                } else {
                    ++relay;
                }
            }
            if (fds[0].revents && !frozen_)
                accept_one();
        }
        for (Relay &relay : relays_) {
            close(relay.client);
            close(relay.daemon);
        }
    }

    std::string path_, real_;
    int listener_;
    std::list<Relay> relays_;
    std::atomic<bool> stop_{false}, frozen_{false}, half_{false};
    std::atomic<int> whole_{-1};
    std::thread thread_;
};

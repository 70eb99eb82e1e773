// A bus daemon of its own for each test, and peers that speak to it in bytes.
#pragma once

#include "message.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hostbus {

using tavrik::Body;
constexpr int ceiling_ms = 30000; // for whatever must happen at some time

inline int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline int connect_to(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

inline int listen_at(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) | listen(fd, 9), 0) << path;
    return fd;
}

// Runs a function in a child process, which ends with the test at the latest.
class Child {
  public:
    explicit Child(const std::function<int()> &run) : pid_(fork()) {
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            _exit(run());
        }
    }
    ~Child() { end(SIGKILL); }
    Child(const Child &) = delete;
    // The exit code, or minus the signal that ended it.
    int end(int signal = 0) {
        int status = 0;
        if (pid_ > 0) {
            if (signal)
                kill(pid_, signal);
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) // by the end of another child
                ;
        }
        pid_ = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

inline std::string hex(std::string_view bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        char two[3];
        snprintf(two, sizeof two, "%02x", c);
        out += two;
    }
    return out;
}
inline std::string unhex(std::string_view text) {
    std::string out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
    return out;
}
inline std::string u32(uint32_t value) {
    value = cpu_to_be32(value);
    return std::string(reinterpret_cast<char *>(&value), 4);
}

struct Message {
    int type = -1; // -1: nothing came, -2: the connection was closed
    unsigned seq = 0;
    uint32_t peer = 0;
    std::string all, body; // with and without header

    std::string payload(unsigned id) const {
        for (size_t at = 0; at + 4 <= body.size();) {
            uint32_t head = be32_to_cpu(*reinterpret_cast<const uint32_t *>(&body[at])), length = head & 0xffffff;
            if (head >> 24 == id)
                return body.substr(at + 4, length - 4);
            at += std::max(4u, (length + 3) & ~3u);
        }
        return {};
    }
    uint32_t u32(unsigned id) const { return std::stoul("0" + hex(payload(id)), nullptr, 16); }
    std::string text(unsigned id) const { return payload(id).c_str(); }
};

inline std::string frame(int type, unsigned seq, uint32_t peer, std::string_view body) {
    return unhex("00") + static_cast<char>(type) + u32(seq).substr(2) + u32(peer) +
           u32(static_cast<uint32_t>(body.size() + 4)) + std::string(body);
}

class Peer {
  public:
    explicit Peer(const std::string &path) : fd_(connect_to(path)) {
        Message hello = next();
        id = hello.peer;
        greeting = hello.all;
    }
    ~Peer() { hang_up(); }
    Peer(const Peer &) = delete;

    void write(std::string_view bytes, int fd = -1) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
        for (ssize_t sent; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(sent)), fd = -1) {
            iovec iov{const_cast<char *>(bytes.data()), bytes.size()};
            msghdr msg{nullptr, 0, &iov, 1, control, fd < 0 ? 0 : CMSG_LEN(sizeof fd), 0};
            if (fd >= 0) {
                *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof fd), SOL_SOCKET, SCM_RIGHTS};
                memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
            }
            if ((sent = sendmsg(fd_, &msg, MSG_NOSIGNAL)) <= 0)
                return;
        }
    }
    void send(int type, const Body &body = Body(), uint32_t peer = 0, int fd = -1) {
        write(frame(type, ++seq, peer, body.bytes()), fd);
    }
    Message next(int timeout_ms = ceiling_ms) {
        Message m;
        pollfd pfd{fd_, POLLIN, 0};
        if (poll(&pfd, 1, timeout_ms) <= 0)
            return m;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
        m.all.resize(12);
        iovec iov{m.all.data(), 12};
        msghdr msg{nullptr, 0, &iov, 1, control, sizeof control, 0};
        m.type = -2;
        if (recvmsg(fd_, &msg, MSG_WAITALL | MSG_CMSG_CLOEXEC) != 12)
            return m;
        if (cmsghdr *head = CMSG_FIRSTHDR(&msg))
            memcpy(&received_fd, CMSG_DATA(head), sizeof received_fd);
        m.body.resize((std::stoul(hex(m.all.substr(8)), nullptr, 16) & 0xffffff) - 4);
        if (!m.body.empty() &&
            recv(fd_, m.body.data(), m.body.size(), MSG_WAITALL) != static_cast<ssize_t>(m.body.size()))
            return m;
        m.type = m.all[1];
        m.seq = static_cast<unsigned>(std::stoul(hex(m.all.substr(2, 2)), nullptr, 16));
        m.peer = static_cast<uint32_t>(std::stoul(hex(m.all.substr(4, 4)), nullptr, 16));
        m.all += m.body;
        return m;
    }
    // Sends a request and reads to its STATUS, which it returns; what comes before is in `before`.
    int ask(int type, const Body &body = Body(), uint32_t peer = 0) {
        send(type, body, peer);
        before.clear();
        while ((last = next()).type >= 0 && !(last.type == UBUS_MSG_STATUS && last.seq == seq))
            before.push_back(last);
        return last.type < 0 ? -100 : static_cast<int>(last.u32(UBUS_ATTR_STATUS));
    }
    uint32_t add(const std::string &path = "", const Body &methods = Body()) {
        Body body;
        if (!path.empty())
            body.put_string(UBUS_ATTR_OBJPATH, path).put(UBUS_ATTR_SIGNATURE, methods.bytes());
        EXPECT_EQ(ask(UBUS_MSG_ADD_OBJECT, body), 0) << path;
        return before.empty() ? 0 : before.back().u32(UBUS_ATTR_OBJID);
    }
    int invoke(uint32_t object, const std::string &method, const Body &data) {
        Body body;
        body.put_u32(UBUS_ATTR_OBJID, object).put_string(UBUS_ATTR_METHOD, method).put(UBUS_ATTR_DATA, data.bytes());
        return ask(UBUS_MSG_INVOKE, body, object);
    }
    int listen(uint32_t object, const std::string &pattern) {
        return invoke(1, "register", Body().field_u32("object", object).field_string("pattern", pattern));
    }
    int event(const std::string &name, const Body &data = Body()) {
        return invoke(1, "send", Body().field_string("id", name).field(BLOBMSG_TYPE_TABLE, "data", data.bytes()));
    }
    // Everything that was sent to it before now.
    std::vector<Message> drain() {
        ask(UBUS_MSG_PING);
        before.pop_back();
        return before;
    }
    void hang_up() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

    uint32_t id = 0;
    std::string greeting;
    unsigned seq = 0;
    int received_fd = -1;
    std::vector<Message> before;
    Message last;

  private:
    int fd_;
};

class HostBus : public ::testing::Test {
  protected:
    void SetUp() override {
        folder = std::filesystem::temp_directory_path() / "hostbus-XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
        std::filesystem::create_directory(folder + "/rules");
        path = folder + "/socket";
        start_daemon();
    }
    void TearDown() override {
        EXPECT_EQ(daemon->end(SIGTERM), 0) << "the daemon's end";
        EXPECT_FALSE(std::filesystem::exists(path));
        std::filesystem::remove_all(folder);
    }
    std::unique_ptr<Child> run_daemon(const char *option, const std::string &value) const {
        return std::make_unique<Child>([&] {
            // TAVRIK_EMULATOR is what a program of another machine is started with.
            const char *const emulator = getenv("TAVRIK_EMULATOR");
            const std::string command = std::string("exec ") + (emulator ? emulator : "") +
                                        " '" TAVRIK_UBUSD_PATH "' -A '" + folder + "/rules' " + option + " '" + value +
                                        "'";
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            return 127;
        });
    }
    void start_daemon() {
        daemon = run_daemon("-s", path);
        int fd = -1;
        for (int64_t end = now_ms() + ceiling_ms; now_ms() < end && (fd = connect_to(path)) < 0;)
            usleep(5000);
        ASSERT_GE(fd, 0) << "no daemon";
        close(fd);
    }
    std::string folder, path;
    std::unique_ptr<Child> daemon;
};

} // namespace hostbus

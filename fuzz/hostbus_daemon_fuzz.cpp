// The bus daemon in this process, and clients that send it any bytes in any pieces, read late or never, carry
// descriptors, hang up. What it sends must be whole messages, it keeps no descriptor, and it serves the next client.
#include "fuzz.h"

#include "bus.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

using namespace tavrik;

namespace {

// Steps: an operation with the number of a client in its low three bits, and what the operation takes.
enum Operation { Write, Frame, FrameWithFd, Sleep, HangUp, Connect, Repeat, Big, Rules, HalfClose, Operations };

struct Peer {
    int fd = -1;
    bool asleep = false; // does not read
    std::string unread;
    std::string last; // message sent
};

const std::string &rule_folder() {
    static const struct Folder {
        std::string path = "/tmp/hostbus-fuzz-XXXXXX";
        Folder() {
            if (!mkdtemp(path.data()))
                abort();
        }
        ~Folder() {
            unlink((path + "/rules.json").c_str());
            rmdir(path.c_str());
        }
    } folder;
    return folder.path;
}

class Run {
  public:
    Run(const uint8_t *data, size_t size) : in_(data, size) {}
    ~Run() {
        if (ruled_)
            unlink((rule_folder() + "/rules.json").c_str());
    }

    void steps() {
        for (size_t n = 0; !in_.empty() && n < 200; n++) {
            unsigned op = in_.byte();
            step((op >> 3) % Operations, peers_[op & 7]);
            pump();
        }
        // A client that comes now is served.
        Peer probe;
        connect(probe, 0);
        write(probe, message(UBUS_MSG_PING, "abc"));
        for (int i = 0; i < 100 && types_ != "021"; i++, pump())
            types_ += read(probe);
        if (types_ != "021")
            abort();
        hang_up(probe);
        for (Peer &peer : peers_)
            hang_up(peer);
    }

  private:
    void step(unsigned op, Peer &peer) {
        if (op == Connect || (peer.fd < 0 && op != Rules))
            connect(peer, op == Connect ? in_.byte() : 0);
        switch (op) {
        case Write:
            write(peer, piece());
            break;
        case Frame:
        case FrameWithFd: {
            auto type = static_cast<uint8_t>(in_.byte());
            peer.last = message(type, piece());
            write(peer, peer.last, op == FrameWithFd);
            break;
        }
        case Sleep:
            peer.asleep = !peer.asleep;
            break;
        case HangUp:
            hang_up(peer);
            break;
        case Repeat:
            for (unsigned n = in_.byte(); n > 0 && peer.fd >= 0 && volume_ < 4 << 20; n--, pump())
                write(peer, peer.last);
            break;
        case Big: {
            size_t size = in_.byte() * size_t{4096};
            peer.last = message(UBUS_MSG_PING, std::string(size, '\0'));
            if (volume_ < 4 << 20)
                write(peer, peer.last);
            break;
        }
        case Rules:
            std::ofstream(rule_folder() + "/rules.json") << in_.text();
            ruled_ = true;
            bus_.reload_rules();
            break;
        case HalfClose:
            shutdown(peer.fd, SHUT_WR);
        }
    }

    // So many bytes as the first one says. 0xff and a number stand for an id that the daemon has given.
    std::string piece() {
        std::string bytes;
        for (unsigned n = in_.byte(); n > 0 && !in_.empty(); n--) {
            unsigned c = in_.byte();
            if (c == 0xff)
                bytes += word(ids_.empty() ? 0 : ids_[in_.byte() % ids_.size()]);
            else
                bytes += static_cast<char>(c);
        }
        return bytes;
    }
    static std::string word(uint32_t value) {
        value = cpu_to_be32(value);
        return std::string(reinterpret_cast<char *>(&value), 4);
    }
    // The first word of the body of a STATUS or DATA is where it goes.
    std::string message(uint8_t type, const std::string &body) {
        bool answer = (type == UBUS_MSG_STATUS || type == UBUS_MSG_DATA) && body.size() >= 4;
        std::string rest = body.substr(answer ? 4 : 0);
        return std::string(1, '\0') + static_cast<char>(type) + word(++seq_).substr(2) +
               (answer ? body.substr(0, 4) : word(0)) + word(static_cast<uint32_t>(rest.size()) + 4) + rest;
    }

    void connect(Peer &peer, unsigned user) {
        hang_up(peer);
        int ends[2], small = 1;
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0)
            abort();
        setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        peer = Peer();
        peer.fd = ends[0];
        switch (user & 3) {
        case 0:
            bus_.add_client(ends[1], {0, 0, {}, "root", "root"});
            break;
        case 1:
            bus_.add_client(ends[1], {1000, 1000, {}, "user", "users"});
            break;
        case 2:
            bus_.add_client(ends[1], {1001, 1001, {1}, "other", "others"}); // group 1 is daemon's
            break;
        default:
            bus_.add_client(ends[1]);
        }
    }
    static void hang_up(Peer &peer) {
        if (peer.fd >= 0)
            close(peer.fd);
        peer = Peer();
    }
    void write(Peer &peer, const std::string &bytes, bool with_fd = false) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        int fd = with_fd ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
        size_t done = 0;
        volume_ += bytes.size() + 16384;
        for (int tries = 0; done < bytes.size() && tries < 400; tries++) {
            iovec iov{const_cast<char *>(bytes.data()) + done, bytes.size() - done};
            msghdr msg{nullptr, 0, &iov, 1, control, with_fd ? CMSG_LEN(sizeof fd) : 0, 0};
            if (with_fd) {
                *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof fd), SOL_SOCKET, SCM_RIGHTS};
                memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
            }
            ssize_t sent = sendmsg(peer.fd, &msg, MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN)
                break;
            done += sent > 0 ? static_cast<size_t>(sent) : 0;
            with_fd = with_fd && sent <= 0;
            if (done < bytes.size())
                pump();
        }
        if (fd >= 0)
            close(fd);
    }

    // Lets the daemon work, and the clients read.
    void pump() {
        for (int i = 0; i < 12; i++)
            uloop_run_timeout(0);
        for (Peer &peer : peers_)
            if (peer.fd >= 0 && !peer.asleep)
                read(peer);
    }
    // The types of the messages that came.
    std::string read(Peer &peer) {
        char room[65536];
        std::string types;
        for (ssize_t got; (got = recv(peer.fd, room, sizeof room, MSG_DONTWAIT)) > 0;)
            peer.unread.append(room, static_cast<size_t>(got));
        size_t at = 0;
        for (auto u32 = [&](size_t i) { return be32_to_cpu(*reinterpret_cast<const uint32_t *>(&peer.unread[i])); };
             at + 12 <= peer.unread.size();) {
            uint32_t length = u32(at + 8), type = u32(at) >> 16 & 0xff;
            if (type > UBUS_MSG_MONITOR || length < 4 || length > max_message)
                abort();
            if (at + 8 + length > peer.unread.size())
                break;
            types += static_cast<char>('0' + type);
            if (type == UBUS_MSG_HELLO)
                learn(u32(at + 4));
            for (size_t a = at + 12; type == UBUS_MSG_DATA && a + 8 <= at + 8 + length;) {
                uint32_t head = u32(a);
                if (head >> 24 == UBUS_ATTR_OBJID || head >> 24 == UBUS_ATTR_OBJTYPE)
                    learn(u32(a + 4));
                a += std::max(4u, ((head & 0xffffff) + 3) & ~3u);
            }
            at += 8 + length;
            if (at % 4) { // words are read where words are
                peer.unread.erase(0, at);
                at = 0;
            }
        }
        peer.unread.erase(0, at);
        return types;
    }
    void learn(uint32_t id) {
        if (std::find(ids_.begin(), ids_.end(), id) == ids_.end())
            ids_.push_back(id);
    }

    fuzz::Input in_;
    Peer peers_[8];
    std::vector<uint32_t> ids_;
    std::string types_;
    uint16_t seq_ = 0;
    size_t volume_ = 0; // of what was written; it is bounded, for time's sake
    bool ruled_ = false;
    Bus bus_{rule_folder()};
};

int lowest_free_fd() {
    int fd = dup(0);
    close(fd);
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int initialised = uloop_init();
    if (initialised < 0)
        abort();
    const int free_fd = lowest_free_fd();
    Run(data, size).steps();
    for (int tries = 0; lowest_free_fd() > free_fd; tries++, usleep(1000)) // libFuzzer's own thread opens files too
        if (tries > 1000)
            abort();
    return 0;
}

#include "bus.h"

#include <cerrno>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tavrik {

namespace {

constexpr size_t max_queue = 1048576;   // unsent
constexpr size_t max_waiting = 4194304; // received, with what an entry costs
constexpr size_t waiting_cost = 64;
constexpr int messages_a_turn = 32; // then it is the next client's turn

union Control {
    cmsghdr head;
    char room[CMSG_SPACE(sizeof(int))];
};

} // namespace

Request &Request::operator=(Request &&other) noexcept {
    memcpy(head, other.head, sizeof head);
    have = other.have;
    length = other.length;
    room = other.room;
    std::swap(body, other.body);
    std::swap(fd, other.fd);
    return *this;
}

Request::~Request() {
    free(body);
    if (fd >= 0)
        close(fd);
}

Client::Client(Bus &bus, int fd, uint32_t id_, Credentials who_) : id(id_), who(std::move(who_)), bus_(bus) {
    sock_.fd = fd;
    sock_.client = this;
    sock_.cb = [](uloop_fd *sock, unsigned events) { static_cast<Watch *>(sock)->client->on_event(events); };
}

Client::~Client() {
    uloop_fd_delete(&sock_);
    close(sock_.fd);
}

// What waits is bounded, in descriptors too; then nothing more is read for a while.
bool Client::full() const {
    return waiting_size_ > max_waiting || (!waiting_.empty() && waiting_.back().fd >= 0);
}

bool Client::watch() {
    unsigned events = ULOOP_ERROR_CB | (full() ? 0u : unsigned{ULOOP_READ}) | (idle() ? 0u : unsigned{ULOOP_WRITE});
    return (sock_.registered && events == sock_.flags) || uloop_fd_add(&sock_, events) == 0;
}

void Client::send(const Header &header, std::string_view body, int fd) {
    if (bus_.monitored())
        bus_.report(*this, header, body, true);
    transmit(header, body, fd);
}

void Client::transmit(const Header &header, std::string_view body, int fd) {
    if (broken_ || body.size() + 4 > max_message) // its reader would refuse it, and the connection with it
        return;
    uint32_t peer = cpu_to_be32(header.peer), outer = cpu_to_be32(static_cast<uint32_t>(body.size() + 4));
    uint16_t seq = cpu_to_be16(header.seq);
    char head[12] = {static_cast<char>(header.version), static_cast<char>(header.type)};
    memcpy(head + 2, &seq, 2);
    memcpy(head + 4, &peer, 4);
    memcpy(head + 8, &outer, 4);
    size_t size = sizeof head + body.size(), done = 0;

    if (idle()) {
        iovec iov[2] = {{head, sizeof head}, {const_cast<char *>(body.data()), body.size()}};
        msghdr msg{};
        Control control{};
        msg.msg_iov = iov;
        msg.msg_iovlen = 2;
        if (fd >= 0) {
            control.head.cmsg_len = CMSG_LEN(sizeof fd);
            control.head.cmsg_level = SOL_SOCKET;
            control.head.cmsg_type = SCM_RIGHTS;
            memcpy(CMSG_DATA(&control.head), &fd, sizeof fd);
            msg.msg_control = &control;
            msg.msg_controllen = CMSG_LEN(sizeof fd);
        }
        ssize_t sent;
        do
            sent = sendmsg(sock_.fd, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
        while (sent < 0 && errno == EINTR);
        if (sent < 0 && errno != EAGAIN) {
            // Its connection is removed when the loop sees its end, not under the feet of the sender.
            broken_ = true;
            return;
        }
        done = sent > 0 ? static_cast<size_t>(sent) : 0;
        if (done == size)
            return;
        queue_.clear();
        sent_ = 0;
    } else if (queue_.size() - sent_ + size > max_queue) {
        return; // who does not read loses messages, and nobody waits
    }
    if (sent_ > max_queue) {
        queue_.erase(0, sent_);
        sent_ = 0;
    }
    if (done < sizeof head)
        queue_.append(head + done, sizeof head - done);
    queue_.append(body.substr(done > sizeof head ? done - sizeof head : 0));
    watch();
}

void Client::flush() {
    while (!idle() && !broken_) {
        ssize_t sent = ::send(sock_.fd, queue_.data() + sent_, queue_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0)
            sent_ += static_cast<size_t>(sent);
        else if (errno == EAGAIN)
            return;
        else if (errno != EINTR)
            broken_ = true;
    }
    queue_.clear();
    queue_.shrink_to_fit();
    sent_ = 0;
}

// True if a whole message was read; at the end of the stream, or where it makes no sense any more, ended_ is set.
bool Client::receive() {
    for (;;) {
        ssize_t got;
        if (in_.have < sizeof in_.head) {
            iovec iov{in_.head + in_.have, sizeof in_.head - in_.have};
            msghdr msg{};
            Control control{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = &control;
            msg.msg_controllen = CMSG_LEN(sizeof(int)); // CMSG_SPACE would leave room for a second descriptor
            got = recvmsg(sock_.fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
            if (got > 0 && msg.msg_controllen >= CMSG_LEN(sizeof(int)) && control.head.cmsg_type == SCM_RIGHTS) {
                if (in_.fd >= 0)
                    close(in_.fd);
                memcpy(&in_.fd, CMSG_DATA(&control.head), sizeof in_.fd);
            }
        } else {
            size_t filled = in_.have - 8;
            if (filled == in_.room) {
                in_.room = std::min(in_.length, in_.room * 4);
                auto *body = static_cast<blob_attr *>(realloc(in_.body, in_.room));
                if (!body) {
                    ended_ = true;
                    return false;
                }
                in_.body = body;
            }
            // A descriptor that comes late is not taken, so the kernel closes it.
            got = recv(sock_.fd, reinterpret_cast<char *>(in_.body) + filled, in_.room - filled, MSG_DONTWAIT);
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            return false;
        if (got <= 0) {
            ended_ = true;
            return false;
        }
        size_t before = in_.have;
        in_.have += static_cast<size_t>(got);
        if (before < sizeof in_.head && in_.have == sizeof in_.head) {
            uint32_t outer;
            memcpy(&outer, in_.head + 8, 4);
            in_.length = be32_to_cpu(outer) & BLOB_ATTR_LEN_MASK;
            if (in_.length < 4 || in_.length > max_message) {
                ended_ = true;
                return false;
            }
            in_.room = std::min<size_t>(in_.length, 16384);
            in_.body = static_cast<blob_attr *>(malloc(in_.room));
            if (!in_.body) {
                ended_ = true;
                return false;
            }
            in_.body->id_len = cpu_to_be32(static_cast<uint32_t>(in_.length)); // id and flags mean nothing here
        }
        if (in_.have >= sizeof in_.head && in_.have == 8 + in_.length)
            return true;
    }
}

void Client::on_event(unsigned events) {
    bool gone = sock_.error;
    broken_ |= gone;
    if (broken_ || (events & ULOOP_WRITE))
        flush();
    for (int n = 0;; n++) {
        while (bus_.go_on(*this), !lookup && !waiting_.empty()) {
            Request request = std::move(waiting_.front());
            waiting_.pop_front();
            waiting_size_ -= request.length + waiting_cost;
            Header header{static_cast<uint8_t>(request.head[0]), static_cast<uint8_t>(request.head[1]), 0, 0};
            memcpy(&header.seq, request.head + 2, 2);
            memcpy(&header.peer, request.head + 4, 4);
            header.seq = be16_to_cpu(header.seq);
            header.peer = be32_to_cpu(header.peer);
            bus_.handle(*this, header, request.body, request.fd);
        }
        // Of a peer that is gone, everything at once: its objects must not outlive it until some later turn.
        if ((n >= messages_a_turn && !gone) || ended_ || full() || !receive())
            break;
        waiting_size_ += in_.length + waiting_cost;
        waiting_.push_back(std::exchange(in_, Request()));
    }
    if (ended_)
        bus_.remove_client(this);
    else
        watch();
}

} // namespace tavrik

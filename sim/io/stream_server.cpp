#include "io/stream_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrik::sim {

namespace {

constexpr size_t max_clients = 256;
constexpr size_t max_input = 8 << 20;     // of one request
constexpr size_t max_waiting = 256 << 10; // a client that does not read its replies is not read either

bool make_address(const std::string &path, sockaddr_un *address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof address->sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address->sun_path, path.data(), path.size());
    return true;
}

bool all_read(int fd) {
    int unread = 0;
    return ioctl(fd, SIOCOUTQ, &unread) || unread == 0;
}

} // namespace

int connect_unix(const std::string &path) {
    sockaddr_un address;
    if (!make_address(path, &address))
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address)) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

std::vector<std::string_view> cut(std::string_view bytes, const Cuts &cuts) {
    std::vector<std::string_view> pieces;
    size_t begin = 0;
    size_t next = 0;
    while (begin < bytes.size()) {
        size_t end = bytes.size();
        while (next < cuts.at.size() && cuts.at[next] <= begin)
            next++;
        if (next < cuts.at.size())
            end = std::min(end, cuts.at[next]);
        if (cuts.every)
            end = std::min(end, begin + cuts.every);
        pieces.push_back(bytes.substr(begin, end - begin));
        begin = end;
    }
    return pieces;
}

void queue_cut(StreamServer::Client &client, std::string_view bytes, const Cuts &cuts, StreamServer::Piece marks) {
    bool first = true;
    for (std::string_view bytes_of_piece : cut(bytes, cuts)) {
        StreamServer::Piece piece;
        piece.bytes = bytes_of_piece;
        piece.when_read = !first;
        piece.delay_ms = first ? marks.delay_ms : 0;
        piece.sent = marks.sent;
        client.queue(std::move(piece));
        first = false;
    }
    if (marks.close || first) {
        if (!first)
            marks.delay_ms = 0;
        client.queue(std::move(marks));
    }
}

StreamServer::Client::Client(StreamServer &server, int fd, uint32_t number)
    : server_(server),
      fd_(fd),
      number_(number),
      watch_([this] { ready(); }),
      timer_([this] { pump(); }) {
    watch();
}

StreamServer::Client::~Client() {
    watch_.stop();
    if (fd_ >= 0)
        ::close(fd_);
}

void StreamServer::Client::watch() {
    unsigned flags = 0;
    if (fd_ >= 0 && !server_.frozen_) {
        if (!paused_ && waiting_ < max_waiting)
            flags |= ULOOP_READ;
        if (blocked_ || (out_.empty() && !server_.flood_.empty()))
            flags |= ULOOP_WRITE;
    }
    watch_.start(fd_, flags);
}

void StreamServer::Client::ready() {
    blocked_ = false;
    if (!paused_ && waiting_ < max_waiting && !receive())
        return close();
    pump();
    // The loop stops to watch what has hung up; nothing would tell a client that is not being read.
    if (watch_.hung_up() && fd_ >= 0)
        close();
}

// False at the end of the stream.
bool StreamServer::Client::receive() {
    char chunk[16384];
    ssize_t n;
    do {
        n = recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n <= 0)
            return n < 0 && (errno == EAGAIN || errno == EINTR);
        input.append(chunk, static_cast<size_t>(n));
        handle_input();
        if (fd_ < 0 || input.size() > max_input)
            return false;
    } while (n == sizeof chunk || watch_.hung_up());
    return true;
}

void StreamServer::Client::resume() {
    paused_ = false;
    // What came with the last request is at hand already.
    if (fd_ >= 0 && !input.empty())
        handle_input();
    watch();
}

// Who is in the middle of it goes on by itself.
void StreamServer::Client::handle_input() {
    if (handling_)
        return;
    handling_ = true;
    server_.handlers_.received(*this);
    handling_ = false;
}

void StreamServer::Client::send(std::string_view bytes) {
    if (fd_ < 0)
        return;
    size_t done = 0;
    if (out_.empty() && !server_.frozen_) {
        ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        done = n > 0 ? static_cast<size_t>(n) : 0;
    }
    if (done < bytes.size()) {
        Piece piece;
        piece.bytes = bytes.substr(done);
        queue(std::move(piece));
    }
}

void StreamServer::Client::queue(Piece piece) {
    if (fd_ < 0)
        return;
    waiting_ += piece.bytes.size();
    out_.push_back(std::move(piece));
    if (out_.size() == 1)
        pump();
}

void StreamServer::Client::pump() {
    while (fd_ >= 0 && !server_.frozen_ && !timer_.running() && !out_.empty()) {
        Piece &piece = out_.front();
        if (piece.when_read && !all_read(fd_)) {
            timer_.start(1);
            break;
        }
        if (piece.delay_ms) {
            timer_.start(std::exchange(piece.delay_ms, 0) + 1); // the loop may be early by one
            break;
        }
        ssize_t n =
            piece.bytes.empty() ? 0 : ::send(fd_, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                blocked_ = true;
                break;
            }
            return close();
        }
        waiting_ -= static_cast<size_t>(n);
        if (static_cast<size_t>(n) < piece.bytes.size()) {
            piece.bytes.erase(0, static_cast<size_t>(n));
            piece.when_read = false;
            blocked_ = true;
            break;
        }
        if (piece.close)
            return close();
        // Whoever waits for the piece may queue another one.
        std::shared_ptr<void> sent = std::move(piece.sent);
        out_.pop_front();
    }
    if (fd_ >= 0 && out_.empty() && !server_.frozen_ && !server_.flood_.empty())
        (void)!::send(fd_, server_.flood_.data(), server_.flood_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    watch();
}

void StreamServer::Client::close() {
    if (fd_ < 0)
        return;
    watch_.stop();
    timer_.stop();
    ::close(std::exchange(fd_, -1));
    std::deque<Piece> gone = std::move(out_);
    out_.clear();
    waiting_ = 0;
    server_.handlers_.closed(*this);
    server_.bury(*this);
}

StreamServer::StreamServer(std::string path, Handlers handlers)
    : path_(std::move(path)),
      handlers_(std::move(handlers)),
      accept_watch_([this] { accept(); }),
      graveyard_([this] { dead_.clear(); }) {
}

StreamServer::~StreamServer() {
    stop_listening();
    clients_.clear();
}

void StreamServer::listen() {
    sockaddr_un address;
    int fd = -1;
    unlink(path_.c_str());
    if (!make_address(path_, &address) || (fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) < 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) || ::listen(fd, 16)) {
        int error = errno;
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("cannot listen on " + path_ + ": " + strerror(error));
    }
    listener_ = fd;
    if (!frozen_)
        accept_watch_.start(listener_, ULOOP_READ);
}

void StreamServer::stop_listening() {
    accept_watch_.stop();
    if (listener_ >= 0)
        close(std::exchange(listener_, -1));
}

void StreamServer::remove_path() const {
    unlink(path_.c_str());
}

void StreamServer::accept() {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
        return;
    if (clients_.size() >= max_clients) {
        close(fd);
        return;
    }
    clients_.push_back(std::make_unique<Client>(*this, fd, ++last_number_));
    handlers_.opened(*clients_.back());
}

void StreamServer::bury(Client &client) {
    auto found = std::find_if(clients_.begin(), clients_.end(), [&](auto &one) { return one.get() == &client; });
    if (found == clients_.end())
        return;
    dead_.splice(dead_.end(), clients_, found);
    graveyard_.start(0);
}

void StreamServer::close_clients() {
    while (!clients_.empty())
        clients_.front()->close();
}

void StreamServer::freeze(bool on) {
    frozen_ = on;
    accept_watch_.start(listener_, on || listener_ < 0 ? 0 : ULOOP_READ);
    for (auto it = clients_.begin(); it != clients_.end();)
        (*it++)->pump();
}

void StreamServer::flood(const std::string &text) {
    flood_.clear();
    // One write carries much, so that it is the reader who sets the pace.
    while (!text.empty() && flood_.size() < 4096)
        flood_ += text;
    for (auto it = clients_.begin(); it != clients_.end();)
        (*it++)->pump();
}

void StreamServer::discard_output() {
    for (auto &client : clients_) {
        std::deque<Piece> gone = std::move(client->out_);
        client->out_.clear();
        client->waiting_ = 0;
        client->timer_.stop();
        client->blocked_ = false;
        client->watch();
    }
}

StreamServer::Client *StreamServer::find(uint32_t number) {
    for (auto &client : clients_)
        if (client->number() == number)
            return client.get();
    return nullptr;
}

} // namespace tavrik::sim

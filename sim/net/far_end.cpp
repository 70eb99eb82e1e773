#include "net/far_end.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "model/addresses.h"
#include "model/modem.h"

namespace tavrik::sim {

namespace {

constexpr char own_namespace[] = "/proc/thread-self/ns/net";
constexpr int loopback = 1; // its number in every namespace
constexpr size_t max_request = 16 << 10;
constexpr uint16_t web_port = 80, name_port = 53;

void check(bool right, const char *what) {
    if (!right)
        throw std::system_error(errno, std::generic_category(), what);
}

void shut(int &fd) {
    if (fd >= 0)
        close(std::exchange(fd, -1));
}

// A bound socket at an address, or at every one when it is NULL.
int open_at(int type, const char *address, uint16_t port) {
    const int family = address && !strchr(address, ':') ? AF_INET : AF_INET6;
    sockaddr_in6 six = {};
    sockaddr_in four = {};
    six.sin6_family = AF_INET6;
    four.sin_family = AF_INET;
    six.sin6_port = four.sin_port = htons(port);
    if (address)
        inet_pton(family, address, family == AF_INET ? static_cast<void *>(&four.sin_addr) : &six.sin6_addr);
    int fd = socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(fd >= 0, "socket");
    const int off = 0;
    if (family == AF_INET6)
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    const bool bound = family == AF_INET ? !bind(fd, reinterpret_cast<sockaddr *>(&four), sizeof four)
                                         : !bind(fd, reinterpret_cast<sockaddr *>(&six), sizeof six);
    if (!bound)
        shut(fd);
    check(bound, "bind");
    return fd;
}

// The link behind which the other side of a connection is, by its address.
std::string link_of(int fd) {
    sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    char text[INET6_ADDRSTRLEN] = "";
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) == 0) {
        if (peer.ss_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(&peer)->sin_addr, text, sizeof text);
        else
            inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6 *>(&peer)->sin6_addr, text, sizeof text);
    }
    std::string address = text;
    if (address.rfind("::ffff:", 0) == 0)
        address.erase(0, 7);
    for (int32_t cid = 1; cid <= last_pdp_cid; cid++)
        if (address == link_ipv4(cid, 2) || address == link_ipv6(cid, 2))
            return link_name(cid);
    return address;
}

// The answer to a question for one name: every name is the far end's.
std::string name_answer(std::string_view query) {
    constexpr size_t head = 12, type_and_class = 4;
    size_t end = head;
    while (end < query.size() && query[end])
        end += size_t(static_cast<unsigned char>(query[end])) + 1;
    end += 1 + type_and_class;
    if (end > query.size())
        return "";
    std::string answer(query.substr(0, end));
    const int type = static_cast<unsigned char>(query[end - 4]) << 8 | static_cast<unsigned char>(query[end - 3]);
    char address[16];
    size_t length = 0;
    if (type == 1 && inet_pton(AF_INET, far_ipv4, address) == 1)
        length = 4;
    else if (type == 28 && inet_pton(AF_INET6, far_ipv6, address) == 1)
        length = 16;
    // A reply, recursion wanted and had; one question, no other records than at most one answer.
    const char counts[] = {'\x81', '\x80', 0, 1, 0, static_cast<char>(length ? 1 : 0), 0, 0, 0, 0};
    answer.replace(2, sizeof counts, counts, sizeof counts);
    if (length) {
        // The name as in the question, type, class Internet, for a minute.
        answer += std::string("\xC0\x0C", 2) + std::string(query.substr(end - 4, 4)) + std::string("\0\0\0\x3C\0", 5);
        answer += static_cast<char>(length);
        answer.append(address, length);
    }
    return answer;
}

} // namespace

bool has_ipv6() {
    return access("/proc/net/if_inet6", F_OK) == 0;
}

FarEnd::Visitor::Visitor(int descriptor) : fd(descriptor), watch([this] { read(); }) {
    watch.start(fd, ULOOP_READ);
}

void FarEnd::Visitor::leave() {
    watch.stop();
    shut(fd);
}

void FarEnd::Visitor::read() {
    char chunk[4096];
    ssize_t n;
    while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0)
        request.append(chunk, static_cast<size_t>(n));
    if (request.find("\r\n\r\n") != std::string::npos) {
        const std::string page = link_of(fd) + "\n";
        const std::string reply =
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(page.size()) +
            "\r\nConnection: close\r\n\r\n" + page;
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    } else if (n < 0 && errno == EAGAIN && request.size() < max_request) {
        return;
    }
    leave();
}

FarEnd::NameServer::NameServer(const char *address)
    : fd(open_at(SOCK_DGRAM, address, name_port)),
      watch([this] { answer(); }) {
    watch.start(fd, ULOOP_READ);
}

FarEnd::NameServer::~NameServer() {
    watch.stop();
    shut(fd);
}

void FarEnd::NameServer::answer() const {
    char query[512];
    sockaddr_storage from = {};
    for (;;) {
        socklen_t length = sizeof from;
        const ssize_t n = recvfrom(fd, query, sizeof query, 0, reinterpret_cast<sockaddr *>(&from), &length);
        if (n < 0)
            return;
        const std::string reply = name_answer({query, static_cast<size_t>(n)});
        if (!reply.empty())
            sendto(fd, reply.data(), reply.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&from), length);
    }
}

// Sockets belong to the namespace in which they are made, so it is entered for a moment.
FarEnd::FarEnd() : ipv6_(has_ipv6()), web_watch_([this] { welcome(); }) {
    int home = open(own_namespace, O_RDONLY | O_CLOEXEC);
    check(home >= 0, own_namespace);
    int error = unshare(CLONE_NEWNET) ? errno : 0;
    std::exception_ptr failure;
    if (!error) {
        try {
            build();
        } catch (...) {
            failure = std::current_exception();
        }
        error = setns(home, CLONE_NEWNET) ? errno : 0;
    }
    close(home);
    if (failure || error) {
        web_watch_.stop();
        shut(web_);
        shut(network_);
    }
    if (failure)
        std::rethrow_exception(failure);
    if (error)
        throw std::system_error(error, std::generic_category(), "network namespace");
}

FarEnd::~FarEnd() {
    web_watch_.stop();
    shut(web_);
    shut(network_);
}

void FarEnd::build() {
    network_ = open(own_namespace, O_RDONLY | O_CLOEXEC);
    check(network_ >= 0, own_namespace);
    netlink_.emplace();
    netlink_->set_up(loopback, true);
    for (const char *address : {far_ipv4, dns_ipv4[0], dns_ipv4[1]})
        netlink_->add_address(loopback, address, 32);
    for (const char *address : {far_ipv6, dns_ipv6[0], dns_ipv6[1]})
        if (ipv6_)
            netlink_->add_address(loopback, address, 128);
    web_ = open_at(SOCK_STREAM, ipv6_ ? nullptr : "0.0.0.0", web_port);
    check(!listen(web_, 16), "listen");
    web_watch_.start(web_, ULOOP_READ);
    for (const char *address : dns_ipv4)
        name_servers_.emplace_back(address);
    for (const char *address : dns_ipv6)
        if (ipv6_)
            name_servers_.emplace_back(address);
}

void FarEnd::connect(int32_t cid, int number) {
    netlink_->set_up(number, true);
    netlink_->add_address(number, link_ipv4(cid, 1), prefix_ipv4);
    if (ipv6_)
        netlink_->add_address(number, link_ipv6(cid, 1), prefix_ipv6);
}

void FarEnd::welcome() {
    visitors_.remove_if([](const Visitor &visitor) { return visitor.fd < 0; });
    for (int fd; (fd = accept4(web_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
        visitors_.emplace_back(fd);
}

} // namespace tavrik::sim

// A bus daemon of its own for each test; peers that speak to it in bytes, and nodes, which are connections of the
// client library whose callbacks tell what they see.
#pragma once

#include "message.h"
#include "support/shell.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <libubus.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace hostbus {

using tavrik::Body;
constexpr int ceiling_ms = 30000; // for whatever must happen at some time

inline int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000;
}
template <class Done>
bool wait_until(Done done) {
    for (const int64_t end = now_ms() + ceiling_ms; !done(); usleep(100))
        if (now_ms() > end)
            return false;
    return true;
}

// A socket that is bound there, and listens, or is connected; -1 if it cannot be.
inline int unix_socket(const std::string &path, int (*join)(int, const sockaddr *, socklen_t)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (join(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) || (join == bind && listen(fd, 99)))
        return close(fd), -1;
    return fd;
}

// Runs a function in a child process, which ends with the test at the latest.
class Child {
  public:
    explicit Child(const std::function<int()> &run) : pid(fork()) {
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            _exit(run());
        }
    }
    ~Child() { end(SIGKILL); }
    Child(const Child &) = delete;
    // The exit code, or minus the signal that ended it.
    int end(int signal = 0) {
        int status = 0;
        if (pid > 0 && signal)
            kill(pid, signal);
        while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) // by the end of another child
            ;
        pid = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    pid_t pid;
};

inline std::string hex(std::string_view bytes) {
    std::string text;
    for (const unsigned char byte : bytes)
        for (const int digit : {byte >> 4, byte & 15})
            text += "0123456789abcdef"[digit];
    return text;
}
inline std::string unhex(const std::string &text) {
    std::string bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return bytes;
}
inline std::string u32(uint32_t value) {
    return std::string(Body().put_u32(0, value).bytes().substr(4));
}
inline uint32_t to_u32(const std::string &bytes) {
    return static_cast<uint32_t>(std::stoul("0" + hex(bytes), nullptr, 16));
}
inline std::string frame(int type, unsigned seq, uint32_t peer, std::string_view body) {
    return std::string(1, '\0') + static_cast<char>(type) + u32(seq).substr(2) + u32(peer) +
           u32(static_cast<uint32_t>(body.size() + 4)) + std::string(body);
}

class Peer {
  public:
    explicit Peer(int fd_) : fd(fd_) {}
    explicit Peer(const std::string &path) : Peer(unix_socket(path, connect)) { greeting = next(); }
    ~Peer() { close(fd); }
    Peer(const Peer &) = delete;

    void write(std::string_view bytes) const {
        for (ssize_t n; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(n)))
            if ((n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0)
                return;
    }
    // A whole message, or nothing if the connection was closed.
    std::string next() const {
        std::string head(12, 0), body;
        pollfd pfd{fd, POLLIN, 0};
        if (fd < 0 || poll(&pfd, 1, ceiling_ms) <= 0 || recv(fd, head.data(), 12, MSG_WAITALL) != 12)
            return {};
        body.resize((to_u32(head.substr(8)) & 0xffffff) - 4);
        const auto length = static_cast<ssize_t>(body.size());
        return length == 0 || recv(fd, body.data(), body.size(), MSG_WAITALL) == length ? head + body : "";
    }
    // Sends a request and reads to its STATUS, which it returns; what comes before is in `before`.
    int ask(int type, const Body &body = Body()) {
        std::string m;
        write(frame(type, ++seq_, 0, body.bytes()));
        for (before.clear(); !(m = next()).empty() && m.substr(1, 3) != '\1' + u32(seq_).substr(2);)
            before.push_back(m);
        return m.empty() ? -100 : static_cast<int>(to_u32(m.substr(16, 4)));
    }
    uint32_t add(const Body &body = Body()) {
        EXPECT_EQ(ask(UBUS_MSG_ADD_OBJECT, body), 0);
        return before.empty() ? 0 : to_u32(before.back().substr(16, 4));
    }

    const int fd;
    std::string greeting;
    std::vector<std::string> before;

  private:
    unsigned seq_ = 0;
};

struct Node : ubus_context {
    char name = 0;
    bool lost = false; // its connection
    std::map<std::string, ubus_object> objects;
    ubus_object_type type{};
    ubus_event_handler events{};
    ubus_subscriber subscriber{};
    ubus_request req{};
    ubus_notify_request notice{};
};
inline std::map<char, Node> nodes;
inline std::vector<std::string> trail; // the node's name, and what its callback saw
inline pid_t bus_daemon;

inline void note(const ubus_context *ctx, const std::string &what) {
    trail.push_back(static_cast<const Node *>(ctx)->name + (" " + what));
}
inline blob_attr *message(const std::string &json) {
    static blob_buf buf;
    blob_buf_init(&buf, 0);
    blobmsg_add_json_from_string(&buf, json.c_str());
    return buf.head;
}
inline std::string text(blob_attr *msg) {
    return std::unique_ptr<char, decltype(&free)>(blobmsg_format_json(msg, true), free).get();
}
inline void on_data(ubus_request *req, int, blob_attr *msg) {
    note(req->ctx, text(msg));
}
inline void on_complete(ubus_request *req, int status) {
    note(req->ctx, "end " + std::to_string(status));
}
inline int call(ubus_context *ctx, ubus_request &req, uint32_t id, const char *method, blob_attr *msg, int fd = -1) {
    const int status = ubus_invoke_async_fd(ctx, id, method, msg, &req, fd);
    req.data_cb = on_data;
    req.complete_cb = on_complete;
    ubus_complete_request_async(ctx, &req);
    return status;
}

// Each method of an object does one thing.
inline int serve(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *name, blob_attr *msg) {
    static ubus_request back;
    static ubus_request_data held;
    static ubus_context *holder = ctx;
    static uloop_timeout timer;
    const std::string method = name;
    uint32_t id = 0;
    if (method == "ping" || method == "poke")
        ubus_lookup_id(ctx, "mine", &id); // the message stays valid over it
    note(ctx, method + " " + (req->acl.user ? req->acl.user : "-") + " " + text(msg));
    if (method == "poke") // calls back while the caller waits
        call(ctx, back, id, "ping", msg);
    if (method == "echo")
        return ubus_send_reply(ctx, req, msg);
    if (method == "hello")
        return ubus_send_reply(ctx, req, message(R"({"ok":true,"txt":"abcd"})"));
    for (int n = 0; n < 3 && method == "three"; n++)
        ubus_send_reply(ctx, req, message("{\"n\":" + std::to_string(n) + "}"));
    if (method == "kill")
        kill(bus_daemon, SIGKILL);
    if (method == "die")
        _exit(0);
    if (method == "fd") {
        const int fd = ubus_request_get_caller_fd(req);
        EXPECT_EQ(write(fd, "x", 1), 1);
        close(fd);
        ubus_request_set_fd(ctx, req, open("/dev/null", O_RDONLY));
    }
    timer.cb = [](uloop_timeout *) {
        ubus_send_reply(holder, &held, message(R"({"late":300})"));
        ubus_complete_deferred_request(holder, &held, 77);
    };
    if (method == "later")
        uloop_timeout_set(&timer, 300);
    if (method == "remove")
        ubus_remove_object(ctx, obj);
    if (method == "poke" || method == "later" || method == "silent" || method == "remove" || method == "kill")
        ubus_defer_request(ctx, req, &held);
    return method == "fail" ? -5 : 0;
}

inline constexpr blobmsg_policy arguments[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
inline constexpr ubus_method shown[] = {UBUS_METHOD("hello", serve, arguments), UBUS_METHOD_NOARG("ping", serve)};
inline constexpr ubus_method any = UBUS_METHOD_NOARG(nullptr, serve);

// It takes the methods of its type if it is "demo", any otherwise. It has no type if its name begins with "~".
inline ubus_object &object(Node &n, const std::string &name) {
    const auto it = n.objects.try_emplace(name).first;
    n.type.methods = shown;
    n.type.n_methods = ARRAY_SIZE(shown);
    it->second.name = it->first.c_str();
    it->second.type = name[0] == '~' ? nullptr : &n.type;
    it->second.methods = name == "demo" ? shown : &any;
    it->second.n_methods = name == "demo" ? ARRAY_SIZE(shown) : 1;
    it->second.subscribe_cb = [](ubus_context *ctx, ubus_object *obj) {
        note(ctx, obj->has_subscribers ? "active" : "inactive");
    };
    return it->second;
}

inline Node &connect_node(char name, const std::string &path) {
    Node &n = nodes[name];
    n.name = name;
    n.lost = false;
    EXPECT_EQ(ubus_connect_ctx(&n, path.c_str()), 0);
    n.connection_lost = [](ubus_context *ctx) {
        static_cast<Node *>(ctx)->lost = true;
        note(ctx, "lost");
    };
    n.monitor_cb = [](ubus_context *ctx, uint32_t seq, blob_attr *) { note(ctx, "saw " + std::to_string(seq)); };
    n.events.cb = [](ubus_context *ctx, ubus_event_handler *, const char *type, blob_attr *msg) {
        note(ctx, type + (strncmp(type, "ubus.", 5) ? " " + text(msg) : ""));
    };
    n.subscriber.cb = [](ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
        note(ctx, method + (" " + text(msg)));
        if (blob_len(msg) == 0)
            ubus_send_reply(ctx, req, message(R"({"n":1})"));
        return 6;
    };
    n.subscriber.remove_cb = [](ubus_context *ctx, ubus_subscriber *, uint32_t) { note(ctx, "gone"); };
    return n;
}

// Of an object by its name or number; 0 if there is none.
inline uint32_t id_of(Node &asker, const std::string &name) {
    uint32_t id = isdigit(name[0]) ? static_cast<uint32_t>(std::stoul(name)) : 0;
    for (auto &[_, n] : nodes)
        if (const auto it = n.objects.find(name); it != n.objects.end())
            id = it->second.id;
    if (id == 0)
        ubus_lookup_id(&asker, name.c_str(), &id);
    return id;
}

using Text = const std::string &;
// Calls "object.method".
inline int invoke(Node &n, Text what, Text json, int limit_ms) {
    const size_t dot = what.find('.');
    blob_attr *const msg = json.empty() ? nullptr : message(json);
    return ubus_invoke(&n, id_of(n, what.substr(0, dot)), &what[dot + 1], msg, on_data, nullptr, limit_ms);
}
inline const std::map<std::string, int (*)(Node &, Text, Text)> verbs = {
    {"add", [](Node &n, Text what, Text) { return ubus_add_object(&n, &object(n, what)); }},
    {"remove", [](Node &n, Text what, Text) { return ubus_remove_object(&n, &n.objects[what]); }},
    {"lookup",
     [](Node &n, Text what, Text) {
         const auto found = [](ubus_context *ctx, ubus_object_data *o, void *) { note(ctx, o->path); };
         return ubus_lookup(&n, what.empty() ? nullptr : what.c_str(), found, nullptr);
     }},
    {"invoke", [](Node &n, Text what, Text json) { return invoke(n, what, json, ceiling_ms); }},
    {"briefly", [](Node &n, Text what, Text json) { return invoke(n, what, json, 300); }},
    {"call",
     [](Node &n, Text what, Text json) {
         const size_t dot = what.find('.');
         return call(&n, n.req, id_of(n, what.substr(0, dot)), &what[dot + 1], message(json));
     }},
    {"listen", [](Node &n, Text what, Text) { return ubus_register_event_handler(&n, &n.events, what.c_str()); }},
    {"send", [](Node &n, Text what, Text json) { return ubus_send_event(&n, what.c_str(), message(json)); }},
    {"register", [](Node &n, Text, Text) { return ubus_register_subscriber(&n, &n.subscriber); }},
    {"subscribe", [](Node &n, Text what, Text) { return ubus_subscribe(&n, &n.subscriber, id_of(n, what)); }},
    {"unsubscribe", [](Node &n, Text what, Text) { return ubus_unsubscribe(&n, &n.subscriber, id_of(n, what)); }},
    {"tell",
     [](Node &n, Text what, Text json) { return ubus_notify(&n, &n.objects[what], "news", message(json), -1); }},
    {"notify",
     [](Node &n, Text what, Text json) { return ubus_notify(&n, &n.objects[what], "news", message(json), 50); }},
    {"poll",
     [](Node &n, Text what, Text json) {
         const int status = ubus_notify_async(&n, &n.objects[what], "news", message(json), &n.notice);
         n.notice.data_cb = [](ubus_notify_request *r, int, blob_attr *msg) { on_data(&r->req, 0, msg); };
         n.notice.status_cb = [](ubus_notify_request *r, int i, int s) { on_complete(&r->req, i * 100 + s); };
         n.notice.complete_cb = [](ubus_notify_request *r, int, int s) { on_complete(&r->req, s); };
         ubus_complete_request_async(&n, &n.notice.req);
         return status;
     }},
    {"monitor", [](Node &n, Text what, Text) { return __ubus_monitor(&n, what.c_str()); }},
    {"acl", [](Node &n, Text, Text) { return ubus_register_acl(&n); }},
    {"reconnect", [](Node &n, Text what, Text) { return ubus_reconnect(&n, what.c_str()); }},
    {"leave", [](Node &n, Text, Text) { return ubus_shutdown(&n), n.lost = true, 0; }},
};

// What a node does, perhaps with several things in turn and a message, and the statuses of that; before them what
// callbacks saw until then, after them what all saw later.
using Step = std::pair<std::string, std::string>;

class HostBus : public ::testing::Test {
  protected:
    HostBus() {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
        std::filesystem::create_directory(folder + "/rules");
        path = folder + "/socket";
        start_daemon();
    }
    ~HostBus() override {
        for (auto &[name, n] : nodes)
            ubus_shutdown(&n);
        nodes.clear();
        trail.clear();
        uloop_done();
        EXPECT_EQ(daemon->end(SIGTERM), 0) << "the daemon's end";
        EXPECT_FALSE(std::filesystem::exists(path));
        std::filesystem::remove_all(folder);
    }
    std::unique_ptr<Child> run_daemon(const std::string &option, const std::string &value) const {
        const char *const emulator = getenv("TAVRIK_EMULATOR"); // what a program of another machine is started with
        const std::string command = std::string("exec ") + (emulator ? emulator : "") + " '" TAVRIK_UBUSD_PATH "' -A " +
                                    folder + "/rules " + option + " '" + value + "'";
        return std::make_unique<Child>([&] { return execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
    }
    static bool connects_to(const std::string &where) { return !Peer(where).greeting.empty(); }
    void start_daemon() {
        daemon = run_daemon("-s", path);
        bus_daemon = daemon->pid;
        EXPECT_TRUE(wait_until([&] { return connects_to(path); }));
    }
    void start_service() { // an object in another process
        child.reset();
        child = std::make_unique<Child>([&] {
            ubus_add_uloop(&connect_node('s', path));
            for (const char *name : {"service", "demo"})
                while (ubus_add_object(&nodes['s'], &object(nodes['s'], name)) != 0)
                    usleep(1000);
            return uloop_run();
        });
        EXPECT_TRUE(wait_until([&] { return id_of(node('a'), "demo") != 0; }));
    }
    Node &node(char name) { return nodes.count(name) ? nodes[name] : connect_node(name, path); }

    static bool pump(size_t entries) { // until the trail has so many
        return wait_until([&] {
            for (auto &[name, n] : nodes)
                for (pollfd pfd{n.sock.fd, POLLIN, 0}; !n.lost && poll(&pfd, 1, 0) > 0;)
                    ubus_handle_event(&n);
            return trail.size() >= entries;
        });
    }
    // Whatever the daemon has for a node, and what comes of it, is handled: nothing more is on its way.
    void settle() const {
        for (int round = 0; round < 3 && !wired; round++)
            for (auto &[name, n] : nodes)
                if (!n.lost)
                    id_of(n, "nothing");
    }
    // What was seen since the last time.
    static std::string seen() {
        std::string all;
        for (const std::string &entry : std::exchange(trail, {}))
            all += (all.empty() ? "" : "; ") + entry;
        return all;
    }
    void run(const std::vector<Step> &steps) {
        for (const auto &[action, expected] : steps) {
            char name;
            std::string verb, word, json, status;
            std::vector<std::string> things;
            std::istringstream words(action);
            for (words >> name >> verb; words >> word;)
                (word[0] == '{' ? json : things.emplace_back()) = word;
            if (things.empty())
                things.emplace_back();
            trail.clear();
            for (Text thing : things)
                status += (status.empty() ? "" : " ") + std::to_string(verbs.at(verb)(node(name), thing, json));
            const auto returned = static_cast<ssize_t>(trail.size());
            settle();
            pump(static_cast<size_t>(std::count(expected.begin(), expected.end(), ';')));
            settle();
            std::stable_sort(trail.begin() + returned, trail.end(), [](auto &a, auto &b) { return a[0] < b[0]; });
            trail.insert(trail.begin() + returned, status);
            EXPECT_EQ(seen(), expected) << action;
        }
    }
    std::string folder = std::filesystem::temp_directory_path() / "hostbus-XXXXXX", path;
    std::unique_ptr<Child> daemon, child;
    bool wired = false; // what goes over the wire is compared, so let it be no more than asked for
};

} // namespace hostbus

// The bus: its clients, their objects, and what passes between them.
#pragma once

#include "access.h"
#include "message.h"

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace tavrik {

class Bus;
struct Object;

struct Type {
    uint32_t id;
    unsigned users = 0;
    std::vector<std::pair<std::string, std::string>> methods; // name, attribute
};

// A look-up goes on where it was once the client has taken what it was sent.
struct Lookup {
    Header request;
    bool all, prefix;
    std::string pattern;
    std::string last; // the path shown last, if started
    bool started = false, found = false;
};

// A message as it comes in.
struct Request {
    char head[12];
    size_t have = 0;             // of the message
    size_t length = 0, room = 0; // of the body: as announced, as allocated so far
    blob_attr *body = nullptr;
    int fd = -1;

    Request() = default;
    Request(Request &&other) noexcept { *this = std::move(other); }
    Request &operator=(Request &&other) noexcept;
    ~Request();
};

// One connection. Its socket is non-blocking both ways; what cannot be sent at once waits here, up to a limit.
class Client {
  public:
    Client(Bus &bus, int fd, uint32_t id, Credentials who);
    ~Client();
    void on_event(unsigned events);
    void send(const Header &header, std::string_view body, int fd = -1);
    // The same, unseen by monitors.
    void transmit(const Header &header, std::string_view body, int fd);
    bool idle() const { return queue_.size() == sent_; }
    bool watch();

    uint32_t id;
    Credentials who;
    std::vector<Object *> objects; // oldest first
    std::optional<Lookup> lookup;
    std::optional<uint32_t> monitor; // reports so far, while monitoring
    size_t held = 0;                 // memory that the bus spends on this client's objects

  private:
    bool receive();
    bool full() const;
    void flush();

    struct Watch : uloop_fd {
        Client *client;
    };
    Watch sock_{};
    Bus &bus_;
    bool broken_ = false, ended_ = false;
    Request in_;
    std::deque<Request> waiting_; // complete; they wait while a look-up waits for its reader
    size_t waiting_size_ = 0;
    std::string queue_;
    size_t sent_ = 0;
};

struct Object {
    uint32_t id;
    Client *owner;
    std::string path;
    bool has_path;
    Type *type;
    size_t cost;
    uint16_t seq = 0;
    std::vector<Object *> subscribers; // oldest first, one entry for each subscription
    std::vector<Object *> targets;
    std::vector<std::string> patterns;
};

constexpr int no_status = -1; // of a request that is answered otherwise, or not at all
constexpr size_t subscription_cost = 64;

class Bus {
  public:
    explicit Bus(std::string rule_folder);
    ~Bus();
    // Takes the descriptor. Null if the peer is refused.
    Client *add_client(int fd);
    Client *add_client(int fd, Credentials who);
    void remove_client(Client *client);
    void handle(Client &from, const Header &header, blob_attr *outer, int fd);
    void go_on(Client &client); // with its look-up, if there is one
    void report(const Client &client, const Header &header, std::string_view body, bool to_client);
    void reload_rules();
    bool monitored() const { return !monitors_.empty(); }

  private:
    int lookup(Client &from, const Header &header, const Attributes &attrs);
    int add_object(Client &from, const Header &header, const Attributes &attrs);
    int remove_object(Client &from, const Header &header, const Attributes &attrs);
    int invoke(Client &from, const Header &header, const Attributes &attrs, int fd);
    int notify(Client &from, const Header &header, const Attributes &attrs);
    int subscribe(Client &from, const Attributes &attrs, bool on);
    int event_object(Client &from, const Attributes &attrs);
    int rules_object(Client &from, const Header &header, const Attributes &attrs);
    int monitor_object(Client &from, const Attributes &attrs);
    void forward_answer(Client &from, const Header &header, const Attributes &attrs, std::string_view body, int fd);

    bool show(Client &to, const Lookup &lookup, const Object &object);
    bool may_subscribe(const Client &from, const Object &target) const;
    void drop_object(Object *object);
    void end_subscription(Object *subscriber, Object *target);
    void tell_active(Object *object, bool active);
    void send_event(const Client *from, const std::string &id, std::string_view fields);
    void object_event(const char *what, const Object &object);
    Object *find(uint32_t id) const;
    template <class Map>
    uint32_t new_id(const Map &taken);
    void status(Client &to, const Header &request, int value);
    bool charge(Client &client, size_t cost);

    std::map<uint32_t, std::unique_ptr<Client>> clients_;
    std::map<uint32_t, std::unique_ptr<Object>> objects_;
    std::map<std::string, Object *> paths_;
    std::map<uint32_t, std::unique_ptr<Type>> types_;
    std::list<Object *> listeners_;
    std::set<Client *> monitors_;
    Access access_;
    uint16_t event_seq_ = 0;
    uint32_t rule_seq_ = 0;
    std::random_device random_;
};

} // namespace tavrik

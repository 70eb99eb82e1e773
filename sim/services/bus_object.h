#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "io/loop.h"
#include "services/context.h"

namespace tavrik::sim {

// A service that is an object of the bus, on a connection of its own. It comes back when the bus does.
class BusObject : public Service {
  public:
    BusObject(Context &context, const char *name, const std::vector<const char *> &methods);
    ~BusObject() override;

    void start() override;
    void stop() override;
    bool settled() const override;
    std::string_view effects() const override {
        return "delay drop raw hex reply status times close freeze refuse stop restart";
    }
    void stand(const Standing &standing) override;
    nlohmann::json describe() const override { return {{"connected", link_ == Link::up}}; }
    void close_connections() override { lose(); }
    void discard_replies() override { delayed_.clear(); }

  protected:
    struct Reply {
        std::string fields; // of the reply message, encoded
        int status = 0;
        bool message = true; // false: nothing but the status
    };

    // Serves a call of one of the methods and returns its status. `message` is valid until then.
    virtual int serve(ubus_request_data *request, const char *method, blob_attr *message) = 0;

    // Replies as the fault, if any, says. Returns what serve() returns.
    int answer(ubus_request_data *request, Reply reply, const Fault *fault);
    void send(ubus_request_data *request, const std::string &fields);
    void complete(ubus_request_data *request, int status);
    // Counts connections, so that late answers to requests of an earlier one can be told apart.
    uint64_t connection() const { return link_ == Link::up ? connection_ : 0; }

    Context &context_;

  private:
    enum class Link { down, probing, up, lost };
    struct Object : ubus_object {
        BusObject *owner;
    };
    struct Connection : ubus_context {
        BusObject *owner;
    };
    struct Delayed {
        ubus_request_data request;
        Reply reply;
        int times;
    };

    void step();
    void connect();
    void lose();
    void disconnect();
    void close_probe();
    void send_delayed();

    const char *name_;
    std::vector<ubus_method> methods_;
    ubus_object_type type_{};
    Object object_{};
    Connection bus_{};
    Link link_ = Link::down;
    bool wanted_ = false;
    bool frozen_ = false;
    uint64_t connected_to_ = 0; // which of the bus daemons
    uint64_t connection_ = 0;
    int probe_ = -1;
    Watch probe_watch_;
    Timer step_timer_;
    std::multimap<int64_t, Delayed> delayed_;
    Timer delay_timer_;
};

// The fields of a message, encoded.
std::string fields_of(const blob_buf &message);
// A message as JSON, empty for one without fields.
std::string json_of(blob_attr *message);
// A JSON object as a message: its fields in their order, encoded.
std::string fields_of(const nlohmann::ordered_json &message);

} // namespace tavrik::sim

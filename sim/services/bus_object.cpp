#include "services/bus_object.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace tavrik::sim {

namespace {

constexpr int retry_ms = 5;
constexpr int probe_limit_ms = 1000;

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

std::string fields_of(const blob_buf &message) {
    return {static_cast<const char *>(blob_data(message.head)), blob_len(message.head)};
}

std::string json_of(blob_attr *message) {
    char *text = message && blob_len(message) ? blobmsg_format_json(message, true) : nullptr;
    std::string json = text ? text : "";
    free(text);
    return json;
}

std::string fields_of(const nlohmann::ordered_json &message) {
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    blobmsg_add_json_from_string(&buffer, message.dump().c_str());
    std::string fields = fields_of(buffer);
    blob_buf_free(&buffer);
    return fields;
}

BusObject::BusObject(Context &context, const char *name, const std::vector<const char *> &methods)
    : context_(context),
      name_(name),
      probe_watch_([this] {
          // A daemon that greets one client greets the next one; connecting to a dead one would block for ever.
          char greeting[64];
          bool greeted = recv(probe_, greeting, sizeof greeting, MSG_DONTWAIT) > 0;
          close_probe();
          link_ = Link::down;
          if (greeted)
              connect();
          else
              step_timer_.start(retry_ms);
      }),
      step_timer_([this] { step(); }),
      delay_timer_([this] { send_delayed(); }) {
    for (const char *method : methods) {
        ubus_method row{};
        row.name = method;
        row.handler = [](ubus_context *, ubus_object *object, ubus_request_data *request, const char *called,
                         blob_attr *message) {
            return static_cast<Object *>(object)->owner->serve(request, called, message);
        };
        methods_.push_back(row);
    }
}

BusObject::~BusObject() {
    disconnect();
}

void BusObject::start() {
    wanted_ = true;
    step_timer_.start(0);
}

void BusObject::stop() {
    wanted_ = false;
    disconnect();
}

bool BusObject::settled() const {
    if (!context_.bus_running)
        return true;
    return wanted_ ? link_ == Link::up && connected_to_ == context_.bus_running : link_ == Link::down;
}

void BusObject::stand(const Standing &standing) {
    frozen_ = standing.freeze;
    bool wanted = !standing.stop && !standing.refuse;
    if (wanted && !wanted_)
        start();
    else if (!wanted && wanted_)
        stop();
    if (link_ != Link::up)
        return;
    if (frozen_)
        uloop_fd_delete(&bus_.sock);
    else if (!bus_.sock.registered)
        ubus_add_uloop(&bus_);
}

void BusObject::step() {
    if (link_ == Link::lost)
        disconnect();
    if (link_ == Link::probing) {
        close_probe();
        link_ = Link::down;
    }
    if (!wanted_ || link_ == Link::up)
        return;
    if (context_.bus_running)
        probe_ = connect_unix(context_.options.bus_path);
    if (probe_ < 0)
        return step_timer_.start(retry_ms);
    link_ = Link::probing;
    probe_watch_.start(probe_, ULOOP_READ);
    step_timer_.start(probe_limit_ms);
}

void BusObject::connect() {
    bus_ = {};
    if (ubus_connect_ctx(&bus_, context_.options.bus_path.c_str()))
        return step_timer_.start(retry_ms);
    fcntl(bus_.sock.fd, F_SETFD, FD_CLOEXEC);
    bus_.owner = this;
    bus_.connection_lost = [](ubus_context *bus) { static_cast<Connection *>(bus)->owner->lose(); };
    // An object that was registered once would be sent with its old type, which a new daemon does not know.
    type_ = {};
    type_.name = name_;
    type_.methods = methods_.data();
    type_.n_methods = static_cast<int>(methods_.size());
    object_ = {};
    object_.name = name_;
    object_.type = &type_;
    object_.methods = type_.methods;
    object_.n_methods = type_.n_methods;
    object_.owner = this;
    link_ = Link::up;
    connected_to_ = context_.bus_running;
    connection_++;
    if (ubus_add_object(&bus_, &object_)) {
        disconnect();
        return step_timer_.start(retry_ms);
    }
    step_timer_.stop();
    if (!frozen_)
        ubus_add_uloop(&bus_);
}

// The connection may be in use by who calls this, so it is freed a moment later.
void BusObject::lose() {
    if (link_ != Link::up)
        return;
    uloop_fd_delete(&bus_.sock);
    shutdown(bus_.sock.fd, SHUT_RDWR);
    link_ = Link::lost;
    step_timer_.start(0);
}

void BusObject::disconnect() {
    delayed_.clear();
    step_timer_.stop();
    close_probe();
    if (link_ == Link::up || link_ == Link::lost)
        ubus_shutdown(&bus_);
    link_ = Link::down;
}

void BusObject::close_probe() {
    probe_watch_.stop();
    if (probe_ >= 0)
        close(std::exchange(probe_, -1));
}

void BusObject::send(ubus_request_data *request, const std::string &fields) {
    // The message around the fields: its head only counts them.
    std::vector<uint32_t> message(1 + (fields.size() + 3) / 4);
    message[0] = htonl(static_cast<uint32_t>(sizeof(uint32_t) + fields.size()));
    memcpy(message.data() + 1, fields.data(), fields.size());
    ubus_send_reply(&bus_, request, reinterpret_cast<blob_attr *>(message.data()));
}

void BusObject::complete(ubus_request_data *request, int status) {
    ubus_complete_deferred_request(&bus_, request, status);
}

int BusObject::answer(ubus_request_data *request, Reply reply, const Fault *fault) {
    int times = reply.message ? 1 : 0;
    if (fault) {
        if (fault->raw)
            reply.fields = *fault->raw;
        if (fault->reply)
            reply.fields = fields_of(*fault->reply);
        if (fault->status)
            reply.status = *fault->status;
        if (fault->raw || fault->reply || fault->times != 1)
            times = fault->times;
        if (fault->drop || fault->close || fault->delay_ms) {
            // Deferred and not completed: the caller hears nothing.
            Delayed delayed{};
            ubus_defer_request(&bus_, request, &delayed.request);
            if (fault->close) {
                lose();
            } else if (!fault->drop) {
                delayed.reply = std::move(reply);
                delayed.times = times;
                delayed_.emplace(now_ms() + fault->delay_ms + 1, std::move(delayed));
                delay_timer_.start(static_cast<int>(std::max<int64_t>(0, delayed_.begin()->first - now_ms())));
            }
            return 0;
        }
    }
    for (int i = 0; i < times; i++)
        send(request, reply.fields);
    return reply.status;
}

void BusObject::send_delayed() {
    while (link_ == Link::up && !delayed_.empty() && delayed_.begin()->first <= now_ms()) {
        auto node = delayed_.extract(delayed_.begin());
        Delayed &delayed = node.mapped();
        for (int i = 0; i < delayed.times; i++)
            send(&delayed.request, delayed.reply.fields);
        complete(&delayed.request, delayed.reply.status);
    }
    if (!delayed_.empty())
        delay_timer_.start(static_cast<int>(std::max<int64_t>(1, delayed_.begin()->first - now_ms())));
}

} // namespace tavrik::sim

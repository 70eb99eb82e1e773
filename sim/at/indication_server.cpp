#include "at/socket_service.h"

namespace tavrik::sim {

namespace {

// A client that reads nothing gets no more than this; what comes on top is lost, and recorded as such.
constexpr size_t max_unread = 4 << 20;

// The indication socket: every client gets everything, in the same order.
class IndicationServer : public SocketService {
  public:
    explicit IndicationServer(Context &context) : SocketService(context, "atind", context.options.atind_path) {
        context.indicate = [this](std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent) {
            return indicate(bytes, cuts, sent);
        };
        context.modem.on_unsolicited = [this](std::string_view line) {
            indicate("\r\n" + std::string(line) + "\r\n", {}, nullptr);
        };
    }

    std::string_view effects() const override { return "close freeze refuse stop restart flood"; }

  protected:
    void opened(StreamServer::Client &client) override {
        SocketService::opened(client);
        if (context_.on_indication_client)
            context_.on_indication_client();
    }
    void received(StreamServer::Client &client) override {
        // Nothing is expected from here.
        context_.record.add("atind", client.number(), client.input);
        client.input.clear();
    }

  private:
    size_t indicate(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent);
};

size_t IndicationServer::indicate(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent) {
    std::vector<uint32_t> numbers;
    for (auto &client : server_.clients())
        numbers.push_back(client->number());
    for (uint32_t number : numbers) {
        // A write that fails ends its client.
        StreamServer::Client *client = server_.find(number);
        if (!client)
            continue;
        if (client->waiting() + bytes.size() > max_unread) {
            context_.record.add("lost", number, "atind");
            continue;
        }
        StreamServer::Piece marks;
        marks.sent = sent;
        queue_cut(*client, bytes, cuts, std::move(marks));
    }
    return numbers.size();
}

} // namespace

std::unique_ptr<Service> make_indication_server(Context &context) {
    return std::make_unique<IndicationServer>(context);
}

} // namespace tavrik::sim

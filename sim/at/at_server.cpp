#include "at/socket_service.h"

namespace tavrik::sim {

namespace {

constexpr size_t max_command = 4096;

// The AT command server: commands end in CR or LF, a reply goes out whole.
class AtServer : public SocketService {
  public:
    explicit AtServer(Context &context) : SocketService(context, "at", context.options.at_path) {}

    std::string_view effects() const override {
        return "delay split drop raw hex error close freeze refuse stop restart flood";
    }

  protected:
    void received(StreamServer::Client &client) override;

  private:
    void serve(StreamServer::Client &client, std::string_view command, char line_end);
};

void AtServer::received(StreamServer::Client &client) {
    size_t begin = 0;
    for (size_t end; client.open() && (end = client.input.find_first_of("\r\n", begin)) != std::string::npos;
         begin = end + 1)
        if (end > begin)
            serve(client, std::string_view(client.input).substr(begin, end - begin), client.input[end]);
    client.input.erase(0, begin);
    if (client.input.size() > max_command) {
        context_.record.add("at", client.number(), client.input);
        client.input.clear();
        client.send("\r\nERROR\r\n");
    }
}

void AtServer::serve(StreamServer::Client &client, std::string_view command, char line_end) {
    context_.record.add("at", client.number(), command);
    const Fault *fault = context_.faults.meet("at", command);
    std::string reply;
    if (context_.modem.state().echo && !(fault && fault->raw))
        reply = std::string(command) + line_end;
    if (!fault)
        return client.send(reply += context_.obey(command));
    if (fault->raw)
        reply = *fault->raw;
    else if (fault->error)
        reply += "\r\n" + *fault->error + "\r\n";
    else if (!fault->close)
        reply += context_.obey(command);
    if (fault->drop)
        return;
    StreamServer::Piece marks;
    marks.delay_ms = fault->delay_ms;
    marks.close = fault->close;
    queue_cut(client, reply, fault->split, std::move(marks));
}

} // namespace

std::unique_ptr<Service> make_at_server(Context &context) {
    return std::make_unique<AtServer>(context);
}

} // namespace tavrik::sim

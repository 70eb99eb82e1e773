#pragma once

#include "services/context.h"

namespace tavrik::sim {

// A service on a Unix socket of its own: what its faults do is the same whatever it says.
class SocketService : public Service {
  public:
    SocketService(Context &context, std::string_view name, const std::string &path)
        : context_(context),
          name_(name),
          server_(path, {[this](StreamServer::Client &client) { opened(client); },
                         [this](StreamServer::Client &client) { received(client); },
                         [this](StreamServer::Client &client) { closed(client); }}) {}

    void start() override { server_.listen(); }
    void stop() override {
        server_.stop_listening();
        server_.close_clients();
        server_.remove_path();
    }
    void stand(const Standing &standing) override;
    void close_connections() override { server_.close_clients(); }
    void discard_replies() override { server_.discard_output(); }
    nlohmann::json describe() const override { return {{"clients", server_.clients().size()}}; }

  protected:
    virtual void opened(StreamServer::Client &client) { context_.record.add("connect", client.number(), name_); }
    virtual void received(StreamServer::Client &client) = 0;
    virtual void closed(StreamServer::Client &client) { context_.record.add("disconnect", client.number(), name_); }

    Context &context_;
    std::string_view name_;
    StreamServer server_;

  private:
    Standing standing_;
};

} // namespace tavrik::sim

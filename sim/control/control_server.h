#pragma once

#include "io/stream_server.h"
#include "services/context.h"

namespace tavrik::sim {

// The private socket of the control calls, which works when the bus does not.
class ControlServer {
  public:
    explicit ControlServer(Context &context);

    void start() { server_.listen(); }

  private:
    void received(StreamServer::Client &client);
    void serve(uint32_t number, const std::string &line);

    Context &context_;
    StreamServer server_;
};

} // namespace tavrik::sim

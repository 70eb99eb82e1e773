#include "control/control_server.h"

#include "control/args.h"
#include "control/verbs.h"

namespace tavrik::sim {

using nlohmann::json;

ControlServer::ControlServer(Context &context)
    : context_(context),
      server_(context.options.control_path,
              {[](StreamServer::Client &) {}, [this](StreamServer::Client &client) { received(client); },
               [](StreamServer::Client &) {}}) {
}

void ControlServer::received(StreamServer::Client &client) {
    // One request at a time: the next line is looked at when the reply is out.
    size_t end;
    while (client.open() && !client.paused() && (end = client.input.find('\n')) != std::string::npos) {
        std::string line = client.input.substr(0, end);
        client.input.erase(0, end + 1);
        client.pause();
        serve(client.number(), line);
    }
}

void ControlServer::serve(uint32_t number, const std::string &line) {
    Done done = [this, number](const Outcome &outcome) {
        StreamServer::Client *client = server_.find(number);
        if (!client)
            return;
        json reply = outcome.error.empty() ? json{{"result", outcome.result}} : json{{"error", outcome.error}};
        client->send(reply.dump(-1, ' ', false, json::error_handler_t::replace) + "\n");
        client->resume();
    };
    json request;
    try {
        request = parse_json(line);
    } catch (const std::exception &error) {
        return done({{}, error.what()});
    }
    if (!request.is_object() || !request.contains("verb") || !request["verb"].is_string())
        return done({{}, "not an object with a \"verb\""});
    for (auto &[key, value] : request.items())
        if (key != "verb" && key != "args")
            return done({{}, "unknown key \"" + key + "\" beside \"verb\" and \"args\""});
    call(context_, request["verb"].get<std::string>(), request.value("args", json::object()), done);
}

} // namespace tavrik::sim

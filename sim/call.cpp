#include "call.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "state.h"

namespace tavrik::sim {

int call(const std::string &sim, const std::string &verb, const std::string &arguments, const std::string &print) {
    nlohmann::json request = {{"verb", verb}};
    if (!arguments.empty()) {
        request["args"] = nlohmann::json::parse(arguments, nullptr, false);
        if (!request["args"].is_object()) {
            fprintf(stderr, "tavrik-sim: not a JSON object: %s\n", arguments.c_str());
            return 2;
        }
    }
    int fd = connect_to_sandbox(sim);
    std::string text = request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    for (size_t sent = 0; sent < text.size();) {
        ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0)
            throw std::runtime_error(std::string("the sandbox does not listen: ") + strerror(errno));
        sent += static_cast<size_t>(n);
    }
    std::string reply;
    char chunk[4096];
    while (reply.find('\n') == std::string::npos) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            throw std::runtime_error("the sandbox ended before it replied");
        reply.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    nlohmann::json parsed = nlohmann::json::parse(reply, nullptr, false);
    if (!parsed.is_object() || parsed.contains("error")) {
        std::string error =
            parsed.is_object() && parsed["error"].is_string() ? parsed["error"].get<std::string>() : reply;
        fprintf(stderr, "tavrik-sim: %s: %s\n", verb.c_str(), error.c_str());
        return 1;
    }
    if (!parsed.contains("result"))
        return 0;
    const nlohmann::json &shown = parsed["result"].at(nlohmann::json::json_pointer(print));
    printf("%s\n", (!print.empty() && shown.is_string() ? shown.get<std::string>() : shown.dump(2)).c_str());
    return 0;
}

} // namespace tavrik::sim

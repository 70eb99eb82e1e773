// The simulator around this program, asked from inside.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace sim {

// Makes one control call on the private socket, which works when the bus is the faulty part. Returns its result.
inline nlohmann::json call(const std::string &verb, const nlohmann::json &args = nlohmann::json::object()) {
    const char *folder = std::getenv("TAVRIK_SIM");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/control", folder ? folder : "/nonexistent");
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string reply;
    if (!connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address)) {
        const std::string line = nlohmann::json{{"verb", verb}, {"args", args}}.dump() + "\n";
        if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size())) {
            char chunk[4096];
            for (ssize_t n; (reply.empty() || reply.back() != '\n') && (n = read(fd, chunk, sizeof chunk)) > 0;)
                reply.append(chunk, size_t(n));
        }
    }
    close(fd);
    const auto parsed = nlohmann::json::parse(reply, nullptr, false);
    if (!parsed.is_object() || !parsed.contains("result")) {
        ADD_FAILURE() << "simulator, " << verb << " " << args << ": " << (reply.empty() ? "no reply" : reply);
        return nullptr;
    }
    return parsed["result"];
}

} // namespace sim

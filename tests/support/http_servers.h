// The servers of http_servers.py, for a test inside the simulator.
#pragma once

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <sys/stat.h>

class HttpServers {
  public:
    HttpServers() {
        mkdir(kFolder, 0700);
        output_ = popen(("exec python3 " TAVRIK_HTTP_SERVERS " " + std::string(kFolder)).c_str(), "re");
        char name[32];
        for (int port; fscanf(output_, "%31s %d", name, &port) == 2 && port;)
            ports_[name] = port;
    }
    HttpServers(const HttpServers &) = delete;
    HttpServers &operator=(const HttpServers &) = delete;

    // "" for "no such server": nobody listens there.
    std::string url(const std::string &server, const std::string &path = "200",
                    const std::string &host = "127.0.0.1") const {
        const auto port = ports_.find(server);
        const bool plain = server.empty() || server == "http" || server == "mute";
        return (plain ? "http://" : "https://") + host + ":" + std::to_string(port == ports_.end() ? 1 : port->second) +
               "/" + path;
    }
    // Request lines since the last time, without line ends, each with a ";" behind.
    std::string requests() {
        std::ifstream file(std::string(kFolder) + "/requests");
        file.seekg(seen_);
        std::string all{std::istreambuf_iterator<char>(file), {}};
        seen_ += std::streamoff(all.size());
        std::replace(all.begin(), all.end(), '\n', ';');
        return all;
    }
    // Makes their authority one that the module trusts, or none.
    static void trust(bool yes) {
        std::ofstream store("/etc/ssl/certs/ca-certificates.crt");
        if (yes)
            store << std::ifstream(std::string(kFolder) + "/ca.pem").rdbuf();
    }

  private:
    static constexpr char kFolder[] = "/tmp/http_servers";
    FILE *output_; // for as long as the program runs
    std::map<std::string, int> ports_;
    std::streamoff seen_ = 0;
};

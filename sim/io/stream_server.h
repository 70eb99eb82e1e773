#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "io/loop.h"

namespace tavrik::sim {

// Where a text is cut into pieces. A piece goes out once the one before it was read.
struct Cuts {
    std::vector<size_t> at; // rising
    size_t every = 0;       // 0: not

    bool none() const { return at.empty() && !every; }
};

std::vector<std::string_view> cut(std::string_view bytes, const Cuts &cuts);

// A listening Unix stream socket and its clients, on the event loop.
class StreamServer {
  public:
    struct Piece {
        std::string bytes;
        bool when_read = false;     // held back until the client has read all before it
        int delay_ms = 0;           // from the moment at which it is the next one
        bool close = false;         // the connection ends behind it
        std::shared_ptr<void> sent; // released when the piece is gone
    };

    class Client {
      public:
        Client(StreamServer &server, int fd, uint32_t number);
        ~Client();

        bool open() const { return fd_ >= 0; }
        uint32_t number() const { return number_; }
        // Received and not yet used; whoever handles it takes off what is done.
        std::string input;

        void send(std::string_view bytes);
        void queue(Piece piece);
        size_t waiting() const { return waiting_; }
        bool paused() const { return paused_; }
        // Reading stops until resume(): a request is being worked on.
        void pause() {
            paused_ = true;
            watch();
        }
        void resume();
        void close();

      private:
        friend class StreamServer;
        void ready();
        bool receive();
        void handle_input();
        void pump();
        void watch();

        StreamServer &server_;
        int fd_;
        uint32_t number_;
        std::deque<Piece> out_;
        size_t waiting_ = 0; // bytes in out_
        bool blocked_ = false;
        bool paused_ = false;
        bool handling_ = false;
        Watch watch_;
        Timer timer_;
    };

    struct Handlers {
        std::function<void(Client &)> opened, received, closed;
    };

    StreamServer(std::string path, Handlers handlers);
    ~StreamServer();

    // Throws std::runtime_error.
    void listen();
    // New connections are refused; the path stays.
    void stop_listening();
    void remove_path() const;
    void close_clients();
    bool listening() const { return listener_ >= 0; }
    // While on, nothing is accepted, read or written.
    void freeze(bool on);
    // What every client gets without end, as fast as it reads; empty stops.
    void flood(const std::string &text);
    // Forgets what has not gone out yet.
    void discard_output();

    Client *find(uint32_t number);
    const std::list<std::unique_ptr<Client>> &clients() const { return clients_; }
    const std::string &path() const { return path_; }

  private:
    void accept();
    void bury(Client &client);

    std::string path_;
    Handlers handlers_;
    int listener_ = -1;
    bool frozen_ = false;
    std::string flood_;
    uint32_t last_number_ = 0;
    std::list<std::unique_ptr<Client>> clients_, dead_;
    Watch accept_watch_;
    Timer graveyard_;
};

// Queues `bytes` cut into pieces. The first one waits as `marks` says, the connection ends behind the last one if it
// says so.
void queue_cut(StreamServer::Client &client, std::string_view bytes, const Cuts &cuts, StreamServer::Piece marks);

// A non-blocking descriptor, or -1 with errno.
int connect_unix(const std::string &path);

} // namespace tavrik::sim

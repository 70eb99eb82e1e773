#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "io/file_events.h"
#include "io/stream_server.h"

namespace tavrik::sim {

// A serial port of the module: a pseudo-terminal, of which this is the far end, and the link by which programs know it.
// As with a real port nothing reaches who opens it later: what is sent while it is closed is lost, and so is what was
// not read when it is closed.
class Terminal {
  public:
    struct Handlers {
        std::function<void(std::string_view bytes)> received;
        std::function<void()> turned; // programs have opened it, or closed it again
    };

    Terminal(FileEvents &events, std::string path, Handlers handlers);
    ~Terminal();

    // A new port. Throws std::runtime_error.
    void plug();
    // The port is gone, and hung up for who has it open.
    void unplug();
    bool plugged() const { return fd_ >= 0; }
    // Without its link it cannot be opened.
    void hide(bool on);
    // While deaf, nothing that programs write is read.
    void deafen(bool on);
    // Sent without end, as fast as it is read; empty stops.
    void flood(const std::string &text);

    // Reads what has been written and sees whether somebody has it open.
    void look();
    bool open() const { return open_; }
    // Open, and set up by who opened it: raw, or left as it is for a moment.
    bool ready() const;
    nlohmann::json settings() const;

    // In pieces that go out once the one before was read; `sent` is released behind the last one.
    void send(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent);
    size_t waiting() const { return waiting_; }
    void discard();

  private:
    struct Piece {
        std::string bytes;
        bool when_read;
        std::shared_ptr<void> sent;
    };

    void drain();
    void pump();
    void watch();
    bool all_read() const;
    int open_near_end() const;

    FileEvents &events_;
    std::string path_;
    Handlers handlers_;
    int fd_ = -1;
    int events_number_ = 0;
    std::string near_end_; // path of the programs' side
    bool hidden_ = false, deaf_ = false, open_ = false, blocked_ = false;
    int64_t opened_ms_ = 0;
    std::string flood_;
    std::deque<Piece> out_;
    size_t waiting_ = 0; // bytes in out_
    int looks_ = 0;      // since something was written
    Watch watch_;
    Timer timer_;
};

} // namespace tavrik::sim

#include "io/terminal.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "places.h"

namespace tavrik::sim {

namespace {

constexpr int quick_looks = 50; // until then whoever reads is about to
constexpr int set_up_ms = 200;  // who has not made it raw by then wants it as it is

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

unsigned speed_of(const termios &settings) {
    static const struct {
        speed_t code;
        unsigned baud;
    } speeds[] = {
        {B4800, 4800},     {B9600, 9600},     {B19200, 19200},   {B38400, 38400},   {B57600, 57600},
        {B115200, 115200}, {B230400, 230400}, {B460800, 460800}, {B921600, 921600},
    };
    for (auto &row : speeds)
        if (row.code == cfgetospeed(&settings))
            return row.baud;
    return 0;
}

bool is_raw(const termios &settings) {
    return !(settings.c_iflag & (IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON)) &&
           !(settings.c_oflag & OPOST) && !(settings.c_lflag & (ECHO | ECHONL | ICANON | ISIG | IEXTEN));
}

} // namespace

Terminal::Terminal(FileEvents &events, std::string path, Handlers handlers)
    : events_(events),
      path_(std::move(path)),
      handlers_(std::move(handlers)),
      watch_([this] { look(); }),
      timer_([this] { pump(); }) {
}

Terminal::~Terminal() {
    handlers_ = {};
    unplug();
}

void Terminal::plug() {
    if (fd_ >= 0)
        return;
    fd_ = ::open((std::string(sandbox_terminals) + "/ptmx").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    unsigned number = 0;
    if (fd_ < 0 || ioctl(fd_, TIOCGPTN, &number) || unlockpt(fd_)) {
        const int error = errno;
        if (fd_ >= 0)
            ::close(std::exchange(fd_, -1));
        throw std::runtime_error("no pseudo-terminal for " + path_ + ": " + strerror(error));
    }
    near_end_ = std::string(sandbox_terminals) + "/" + std::to_string(number);
    // A new one counts as open until it is closed for the first time.
    ::close(open_near_end());
    events_number_ = events_.add(near_end_, IN_OPEN | IN_CLOSE, [this](uint32_t, const std::string &) { look(); });
    hide(hidden_);
}

void Terminal::unplug() {
    if (fd_ < 0)
        return;
    watch_.stop();
    events_.remove(events_number_);
    drain(); // what was written before counts
    ::unlink(path_.c_str());
    ::close(std::exchange(fd_, -1));
    discard();
    if (std::exchange(open_, false) && handlers_.turned)
        handlers_.turned();
}

void Terminal::hide(bool on) {
    hidden_ = on;
    ::unlink(path_.c_str());
    if (!hidden_ && fd_ >= 0 && symlink(near_end_.c_str(), path_.c_str()))
        throw std::runtime_error(path_ + ": " + strerror(errno));
}

void Terminal::deafen(bool on) {
    deaf_ = on;
    look();
}

void Terminal::flood(const std::string &text) {
    flood_.clear();
    while (!text.empty() && flood_.size() < 4096)
        flood_ += text;
    pump();
}

int Terminal::open_near_end() const {
    return ::open(near_end_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
}

void Terminal::drain() {
    char chunk[4096];
    for (ssize_t n; !deaf_ && handlers_.received && (n = ::read(fd_, chunk, sizeof chunk)) > 0;)
        handlers_.received({chunk, static_cast<size_t>(n)});
}

void Terminal::look() {
    if (fd_ < 0)
        return;
    drain();
    blocked_ = false;
    pollfd state = {fd_, 0, 0};
    const bool open = poll(&state, 1, 0) >= 0 && !(state.revents & POLLHUP);
    if (open != open_) {
        open_ = open;
        if (open) {
            opened_ms_ = now_ms();
        } else {
            discard();
            const int near = open_near_end();
            tcflush(near, TCIFLUSH);
            ::close(near);
        }
        handlers_.turned();
    }
    pump();
}

bool Terminal::ready() const {
    termios settings;
    return open_ && !tcgetattr(fd_, &settings) && (is_raw(settings) || now_ms() >= opened_ms_ + set_up_ms);
}

nlohmann::json Terminal::settings() const {
    termios settings;
    if (fd_ < 0 || tcgetattr(fd_, &settings)) // at this end they are the other's, too
        return nullptr;
    return {{"speed", speed_of(settings)},
            {"raw", is_raw(settings)},
            {"echo", (settings.c_lflag & ECHO) != 0},
            {"stop_bits", settings.c_cflag & CSTOPB ? 2 : 1},
            {"rtscts", (settings.c_cflag & CRTSCTS) != 0},
            {"clocal", (settings.c_cflag & CLOCAL) != 0},
            {"vmin", settings.c_cc[VMIN]},
            {"vtime", settings.c_cc[VTIME]}};
}

void Terminal::send(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent) {
    if (!open_)
        return;
    for (std::string_view piece : cut(bytes, cuts)) {
        out_.push_back({std::string(piece), !cuts.none(), sent});
        waiting_ += piece.size();
    }
    pump();
}

void Terminal::discard() {
    const std::deque<Piece> gone = std::move(out_);
    out_.clear();
    waiting_ = 0;
    blocked_ = false;
    timer_.stop();
}

bool Terminal::all_read() const {
    const int near = open_near_end();
    // Asked so, the kernel first brings what was written to the other end.
    pollfd state = {near, POLLIN, 0};
    poll(&state, 1, 0);
    int unread = 0;
    const bool all = near < 0 || ioctl(near, FIONREAD, &unread) || unread == 0;
    if (near >= 0)
        ::close(near);
    return all;
}

void Terminal::pump() {
    while (open_ && !timer_.running() && !out_.empty()) {
        Piece &piece = out_.front();
        if (piece.when_read && !all_read()) {
            timer_.start(looks_++ < quick_looks ? 0 : 1);
            break;
        }
        looks_ = 0;
        const ssize_t n = write(fd_, piece.bytes.data(), piece.bytes.size());
        if (n < 0) {
            blocked_ = true;
            break;
        }
        waiting_ -= static_cast<size_t>(n);
        if (static_cast<size_t>(n) < piece.bytes.size()) {
            piece.bytes.erase(0, static_cast<size_t>(n));
            piece.when_read = false;
            blocked_ = true;
            break;
        }
        const std::shared_ptr<void> sent = std::move(piece.sent);
        out_.pop_front();
    }
    if (open_ && out_.empty() && !flood_.empty())
        (void)!write(fd_, flood_.data(), flood_.size());
    watch();
}

void Terminal::watch() {
    // Nobody at the other end is a hang-up, and would be told of again and again.
    const bool writes = blocked_ || (out_.empty() && !flood_.empty());
    watch_.start(fd_, open_ ? (deaf_ ? 0 : ULOOP_READ) | (writes ? ULOOP_WRITE : 0) : 0);
}

} // namespace tavrik::sim

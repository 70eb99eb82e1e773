#include "io/file_events.h"

#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

namespace tavrik::sim {

namespace {

constexpr int look_every_ms = 5;

} // namespace

FileEvents::FileEvents()
    : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      watch_([this] { read(); }),
      timer_([this] {
          read();
          timer_.start(look_every_ms);
      }) {
    if (fd_ >= 0)
        watch_.start(fd_, ULOOP_READ);
}

FileEvents::~FileEvents() {
    watch_.stop();
    if (fd_ >= 0)
        close(fd_);
}

int FileEvents::add(const std::string &path, uint32_t mask, Handler handler) {
    int number = fd_ < 0 ? -1 : inotify_add_watch(fd_, path.c_str(), mask);
    if (number < 0) {
        number = --last_;
        timer_.start(look_every_ms);
    }
    handlers_[number] = std::move(handler);
    return number;
}

void FileEvents::remove(int number) {
    if (number >= 0)
        inotify_rm_watch(fd_, number);
    handlers_.erase(number);
}

void FileEvents::read() {
    // Who is told may add and remove.
    const auto tell = [this](int number, uint32_t mask, const std::string &name) {
        if (auto found = handlers_.find(number); found != handlers_.end())
            Handler(found->second)(mask, name);
    };
    std::vector<int> looked;
    for (auto it = handlers_.begin(); it != handlers_.end() && it->first < 0; ++it)
        looked.push_back(it->first);
    for (int number : looked)
        tell(number, 0, "");
    alignas(inotify_event) char events[4096];
    for (ssize_t n; fd_ >= 0 && (n = ::read(fd_, events, sizeof events)) > 0;)
        for (const char *at = events; at < events + n;) {
            const auto &event = *reinterpret_cast<const inotify_event *>(at);
            at += sizeof event + event.len;
            tell(event.wd, event.mask, event.len ? event.name : "");
        }
}

} // namespace tavrik::sim

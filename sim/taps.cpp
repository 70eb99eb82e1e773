#include "taps.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace tavrik::sim {

namespace {

constexpr size_t max_line = 64 << 10;

} // namespace

Taps::Taps(Context &context)
    : context_(context),
      writes_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      watch_([this] { read(); }) {
    for (const Tap &tap : context.options.taps) {
        fcntl(tap.fd, F_SETFD, FD_CLOEXEC);
        // The end of a write, too: else two writes in a row would be told as one.
        const std::string path = "/proc/self/fd/" + std::to_string(tap.fd);
        const int number = inotify_add_watch(writes_, path.c_str(), IN_MODIFY | IN_CLOSE_WRITE);
        Reader &reader = readers_.try_emplace(number < 0 ? -tap.fd : number, tap, *this).first->second;
        if (number < 0)
            reader.watch.start(tap.fd, ULOOP_READ);
    }
    if (writes_ >= 0)
        watch_.start(writes_, ULOOP_READ);
}

Taps::~Taps() {
    watch_.stop();
    if (writes_ >= 0)
        close(writes_);
}

bool Taps::take_line(Reader &reader) {
    char chunk[4096];
    for (ssize_t n; (n = ::read(reader.tap.fd, chunk, sizeof chunk)) > 0;)
        reader.text.append(chunk, static_cast<size_t>(n));
    const size_t end = reader.text.find('\n');
    if (end == std::string::npos) {
        if (reader.text.size() > max_line)
            reader.text.clear();
        return false;
    }
    const std::string line = reader.text.substr(0, end);
    reader.text.erase(0, end + 1);
    context_.record.add(reader.tap.kind, 0, line);
    context_.power.write(reader.tap.kind, line, context_.clock.now());
    return true;
}

void Taps::read() {
    alignas(inotify_event) char events[4096];
    for (ssize_t n; (n = ::read(writes_, events, sizeof events)) > 0;)
        for (const char *at = events; at < events + n;) {
            const auto &event = *reinterpret_cast<const inotify_event *>(at);
            at += sizeof event + event.len;
            if (auto found = readers_.find(event.wd); event.mask & IN_MODIFY && found != readers_.end())
                take_line(found->second);
        }
    // One write may have brought several lines.
    for (auto &[number, reader] : readers_)
        while (take_line(reader))
            continue;
}

} // namespace tavrik::sim

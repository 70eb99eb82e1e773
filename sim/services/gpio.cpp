#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "services/context.h"

namespace tavrik::sim {

namespace {

namespace fs = std::filesystem;

const fs::path folder = "/sys/class/gpio";
constexpr int max_line = 1023;

std::string first_word(const fs::path &path) {
    std::ifstream file(path);
    std::string word;
    file >> word;
    return word;
}

// Puts a file in place of another one: whoever reads it finds the one text or the other.
void put(const fs::path &path, const std::string &text) {
    const fs::path aside = path.parent_path() / ".new";
    std::ofstream(aside) << text << "\n";
    std::error_code ignored;
    fs::rename(aside, path, ignored);
}

// The kernel's GPIO lines, as programs know them: plain files, in folders that come and go as lines are exported. A
// line that is put out as 1 is the receiver's power.
class Gpio : public Service {
  public:
    explicit Gpio(Context &context)
        : context_(context),
          export_([this] { read_pending(); }),
          unexport_([this] { read_pending(); }) {}
    ~Gpio() override { take_down(); }

    void start() override;
    void stop() override { take_down(); }
    std::string_view effects() const override { return "stop"; }
    void stand(const Standing &standing) override;
    void discard_replies() override;
    void read_pending() override;
    nlohmann::json describe() const override;

  private:
    // One of the files that take numbers of lines.
    struct Entrance {
        explicit Entrance(std::function<void()> ready) : watch(std::move(ready)) {}
        int fd = -1;
        Watch watch;
    };
    struct Line {
        int watch = 0;
        bool written = false; // the file that was, since it was told of last
        bool high = false;    // put out so
    };

    static void open_entrance(Entrance &entrance, const char *name);
    void read_numbers(Entrance &entrance, const char *name);
    void add(int number);
    void remove(int number);
    void look(int number, uint32_t mask, const std::string &file);
    void take_down();

    Context &context_;
    Entrance export_, unexport_;
    std::map<int, Line> lines_;
};

void Gpio::open_entrance(Entrance &entrance, const char *name) {
    const fs::path path = folder / name;
    if (mkfifo(path.c_str(), 0666) || (entrance.fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) < 0)
        throw std::runtime_error(path.string() + ": " + strerror(errno));
    entrance.watch.start(entrance.fd, ULOOP_READ);
}

void Gpio::start() {
    if (export_.fd >= 0)
        return;
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder, ignored))
        fs::remove_all(entry, ignored);
    open_entrance(export_, "export");
    open_entrance(unexport_, "unexport");
}

void Gpio::take_down() {
    while (!lines_.empty())
        remove(lines_.begin()->first);
    for (Entrance *entrance : {&export_, &unexport_}) {
        entrance->watch.stop();
        if (entrance->fd >= 0)
            close(std::exchange(entrance->fd, -1));
    }
    std::error_code ignored;
    fs::remove(folder / "export", ignored);
    fs::remove(folder / "unexport", ignored);
}

void Gpio::stand(const Standing &standing) {
    if (standing.stop)
        take_down();
    else
        start();
}

void Gpio::discard_replies() {
    read_pending();
    while (!lines_.empty())
        remove(lines_.begin()->first);
}

void Gpio::read_pending() {
    read_numbers(export_, "export");
    context_.files.read(); // what went to the lines before they go
    read_numbers(unexport_, "unexport");
}

// A number is a write of its own, with or without a line feed.
void Gpio::read_numbers(Entrance &entrance, const char *name) {
    char chunk[4096];
    for (ssize_t n; entrance.fd >= 0 && (n = read(entrance.fd, chunk, sizeof chunk)) > 0;) {
        const std::string text(chunk, static_cast<size_t>(n));
        for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
            end = std::min(text.find('\n', begin), text.size());
            const std::string word = text.substr(begin, end - begin);
            context_.record.add("gpio", 0, name + (" " + word));
            const bool digits = !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
            const int number = digits && word.size() <= 4 ? std::stoi(word) : max_line + 1;
            if (number > max_line)
                continue;
            if (&entrance == &export_)
                add(number);
            else
                remove(number);
        }
    }
}

void Gpio::add(int number) {
    if (lines_.count(number))
        return;
    // All at once: who sees one file sees all.
    const fs::path aside = folder / ".new", path = folder / ("gpio" + std::to_string(number));
    fs::create_directory(aside);
    for (const char *file : {"active_low", "value"})
        std::ofstream(aside / file) << "0\n";
    std::ofstream(aside / "direction") << "in\n";
    const int watch =
        context_.files.add(aside, IN_MODIFY | IN_CLOSE_WRITE,
                           [this, number](uint32_t mask, const std::string &file) { look(number, mask, file); });
    fs::rename(aside, path);
    lines_[number].watch = watch;
}

void Gpio::remove(int number) {
    auto found = lines_.find(number);
    if (found == lines_.end())
        return;
    context_.files.remove(found->second.watch);
    lines_.erase(found);
    std::error_code ignored;
    fs::remove_all(folder / ("gpio" + std::to_string(number)), ignored);
}

// A file of a line was written to; without a name it is not known which.
void Gpio::look(int number, uint32_t mask, const std::string &file) {
    auto found = lines_.find(number);
    if (found == lines_.end() || (!file.empty() && file[0] == '.'))
        return;
    Line &line = found->second;
    const std::string name = "gpio" + std::to_string(number);
    const fs::path path = folder / name;
    std::string direction = first_word(path / "direction"), value = first_word(path / "value");
    line.written |= (mask & IN_MODIFY) != 0;
    if (mask & IN_CLOSE_WRITE && std::exchange(line.written, false))
        context_.record.add("gpio", 0, name + "/" + file + " " + first_word(path / file));
    // Read back, a line that was to start high or low is an output.
    if (!(mask & IN_MODIFY) && (direction == "high" || direction == "low")) {
        value = direction == "high" ? "1" : "0";
        put(path / "value", value);
        put(path / "direction", direction = "out");
    }
    // In the midst of a write a file is empty.
    if (direction.empty() || value.empty())
        return;
    const bool high = direction == "out" && value == "1";
    if (std::exchange(line.high, high) != high)
        context_.receiver.power(high, context_.clock.now());
}

nlohmann::json Gpio::describe() const {
    nlohmann::json lines = nlohmann::json::object();
    for (auto &[number, line] : lines_) {
        const fs::path path = folder / ("gpio" + std::to_string(number));
        for (const char *file : {"active_low", "direction", "value"})
            lines[std::to_string(number)][file] = first_word(path / file);
    }
    return {{"lines", lines}};
}

} // namespace

std::unique_ptr<Service> make_gpio(Context &context) {
    return std::make_unique<Gpio>(context);
}

} // namespace tavrik::sim

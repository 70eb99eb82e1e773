#include <filesystem>

#include "services/context.h"

namespace tavrik::sim {

namespace {

namespace fs = std::filesystem;

constexpr const char *files[] = {"autosleep", "wake_lock", "wake_unlock"};

// The files below /sys/power, which the taps read; here they can be made to fail.
class PowerFiles : public Service {
  public:
    explicit PowerFiles(Context &context) : context_(context) {}

    void start() override {}
    void stop() override {}
    std::string_view effects() const override { return "full"; }
    void stand(const Standing &standing) override;
    nlohmann::json describe() const override;

  private:
    Context &context_;
    bool full_ = false;
};

void PowerFiles::stand(const Standing &standing) {
    if (std::exchange(full_, standing.full) == standing.full)
        return;
    for (const char *file : files) {
        const fs::path path = fs::path("/sys/power") / file;
        const fs::path aside = path.string() + ".aside";
        std::error_code ignored;
        if (full_) {
            fs::rename(path, aside, ignored);
            fs::create_symlink("/dev/full", path, ignored);
        } else {
            fs::rename(aside, path, ignored);
        }
    }
}

nlohmann::json PowerFiles::describe() const {
    context_.read_taps();
    nlohmann::json described = nlohmann::json::object();
    for (const char *file : files)
        described[file] = context_.power.read(file, context_.clock.now());
    return described;
}

} // namespace

std::unique_ptr<Service> make_power(Context &context) {
    return std::make_unique<PowerFiles>(context);
}

} // namespace tavrik::sim

#include <filesystem>
#include <fstream>

#include "places.h"
#include "services/context.h"

namespace tavrik::sim {

namespace {

namespace fs = std::filesystem;

// The script that restarts the WiFi service. What it does beside telling its command line it reads from a file.
class WifiService : public Service {
  public:
    void start() override {}
    void stop() override {}
    std::string_view effects() const override { return "exit signal sleep stop"; }
    void stand(const Standing &standing) override;
};

void WifiService::stand(const Standing &standing) {
    const fs::path path = wifi_service_path, aside = path.string() + ".aside";
    std::error_code ignored; // it is aside, or in its place
    standing.stop ? fs::rename(path, aside, ignored) : fs::rename(aside, path, ignored);
    std::ofstream(wifi_service_fate) << "sleep " << standing.sleep_ms / 1000. << "\nkill -" << standing.signal
                                     << " $$\nexit " << standing.exit_code << "\n";
    if (!standing.sleep_ms && !standing.signal && !standing.exit_code)
        fs::remove(wifi_service_fate, ignored);
}

} // namespace

std::unique_ptr<Service> make_wifi(Context &) {
    return std::make_unique<WifiService>();
}

} // namespace tavrik::sim

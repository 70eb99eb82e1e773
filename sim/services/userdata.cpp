#include <fcntl.h>
#include <filesystem>
#include <sys/statvfs.h>
#include <unistd.h>

#include "places.h"
#include "services/context.h"

namespace tavrik::sim {

namespace {

namespace fs = std::filesystem;

const fs::path path = "/mnt/userdata";

// The flash that keeps what programs save. It is small, so that it can be filled.
class UserData : public Service {
  public:
    ~UserData() override { fill(false); }

    void start() override { mount(true); }
    void stop() override { mount(false); }
    std::string_view effects() const override { return "full stop"; }
    void stand(const Standing &standing) override {
        mount(!standing.stop);
        fill(standing.full);
    }
    void discard_replies() override {
        std::error_code ignored;
        for (const fs::directory_entry &entry : fs::directory_iterator(sandbox_disk, ignored))
            fs::remove_all(entry, ignored);
    }
    nlohmann::json describe() const override {
        struct statvfs st = {};
        statvfs(sandbox_disk, &st);
        return {{"free", st.f_bavail * st.f_frsize}};
    }

  private:
    static void mount(bool on) {
        std::error_code ignored;
        fs::remove(path, ignored);
        if (on)
            fs::create_symlink(sandbox_disk, path, ignored);
    }
    // With a file that nobody sees.
    void fill(bool on) {
        if (!on && filler_ >= 0)
            close(std::exchange(filler_, -1));
        if (!on || filler_ >= 0)
            return;
        filler_ = open(sandbox_disk, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        struct statvfs st = {};
        statvfs(sandbox_disk, &st);
        (void)!posix_fallocate(filler_, 0, static_cast<off_t>(st.f_bfree * st.f_frsize));
    }

    int filler_ = -1;
};

} // namespace

std::unique_ptr<Service> make_userdata(Context &) {
    return std::make_unique<UserData>();
}

} // namespace tavrik::sim

// The folders of the module that programs write to, and what can go wrong with them.
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <system_error>
#include <unistd.h>

#include "places.h"
#include "services/context.h"
#include "services/uci_packages.h"

namespace tavrik::sim {

namespace {

namespace fs = std::filesystem;

constexpr auto overlay_magic = 0x794C7630;

void check(bool right, const std::string &what) {
    if (!right)
        throw std::system_error(errno, std::generic_category(), what);
}

class Folder : public Service {
  public:
    explicit Folder(const char *path) : path_(path) {}

    void start() override {}
    void stop() override {}
    std::string_view effects() const override { return "full read_only"; }
    void stand(const Standing &standing) override;

  private:
    void fill();
    void empty();
    void protect(bool read_only);

    const char *path_;
    fs::path ballast_;
    uint64_t room_ = 0; // that the file system has when it is not full; 0 while it is not
    bool read_only_ = false;
};

struct statfs look_at(const fs::path &folder) {
    struct statfs found = {};
    check(!statfs(folder.c_str(), &found), folder);
    return found;
}

bool resize(const fs::path &folder, uint64_t bytes) {
    const std::string size = "size=" + std::to_string(bytes);
    return !mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_NOSUID, size.c_str());
}

// Shrinks the file system to what it holds. One that holds nothing would then be without limit, hence the ballast.
void Folder::fill() {
    const fs::path folder = look_at(path_).f_type == overlay_magic ? overlay_changes : path_;
    ballast_ = folder / ".tavrik-sim-ballast";
    std::ofstream(ballast_) << '.';
    // It cannot be made smaller than what a program has written there by then.
    for (int attempts = 100; !room_; attempts--) {
        const struct statfs found = look_at(folder);
        const auto block = static_cast<uint64_t>(found.f_bsize);
        if (resize(folder, (found.f_blocks - found.f_bfree) * block))
            room_ = found.f_blocks * block;
        else
            check(attempts > 1, "fill " + folder.string());
    }
}

void Folder::empty() {
    check(resize(ballast_.parent_path(), room_), "make room below " + ballast_.string());
    room_ = 0;
    fs::remove(ballast_);
}

void Folder::protect(bool read_only) {
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_NOSUID | (read_only ? MS_RDONLY : 0);
    check(!mount(nullptr, path_, nullptr, flags, nullptr), std::string("remount ") + path_);
    read_only_ = read_only;
}

void Folder::stand(const Standing &standing) {
    if (read_only_ && !standing.read_only)
        protect(false);
    if (standing.full != (room_ != 0))
        standing.full ? fill() : empty();
    if (!read_only_ && standing.read_only)
        protect(true);
}

// With the packages of uci in it, whose files can be locked as by another program.
class Etc : public Folder {
  public:
    Etc() : Folder("/etc") {}
    ~Etc() override { hold({}); }

    void renew() override { renew_uci_packages(); }
    std::string_view effects() const override { return "full read_only lock"; }
    void stand(const Standing &standing) override {
        hold(standing.locks);
        Folder::stand(standing);
    }

  private:
    void hold(const std::set<std::string> &packages);

    std::map<std::string, int> locks_;
};

void Etc::hold(const std::set<std::string> &packages) {
    for (auto next = locks_.begin(); next != locks_.end();) {
        const auto it = next++;
        if (packages.count(it->first))
            continue;
        close(it->second);
        locks_.erase(it);
    }
    for (const std::string &package : packages) {
        if (locks_.count(package))
            continue;
        const fs::path file = uci_file(package);
        const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        check(fd >= 0, file);
        locks_[package] = fd;
        check(!flock(fd, LOCK_EX | LOCK_NB), "lock " + file.string());
    }
}

} // namespace

std::unique_ptr<Service> make_etc(Context &) {
    return std::make_unique<Etc>();
}

std::unique_ptr<Service> make_tmp(Context &) {
    return std::make_unique<Folder>("/tmp");
}

} // namespace tavrik::sim

#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include "places.h"

namespace fs = std::filesystem;

namespace tavrik::sim {
namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void check(int rc, const std::string &what) {
    if (rc < 0)
        fail(what);
}

// Builds the tree. What belongs to the sandbox is told from what belongs to the host by its file system, because
// nothing may ever be created on the host.
class Tree {
  public:
    Tree() {
        for (Place place : places()) {
            // The last component is not resolved: /var/run/ubus.sock is the link to make, /var/run may be one.
            place.path = fs::weakly_canonical(place.path.parent_path()) / place.path.filename();
            places_.push_back(place);
        }
        std::error_code none;
        const fs::path ptmx = fs::canonical("/dev/ptmx", none);
        if (!none)
            ptmx_folder_ = open(ptmx.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }

    std::vector<Tap> build() {
        for (const Place &place : places_)
            put(place);
        if (ptmx_folder_ >= 0)
            close(ptmx_folder_);
        return std::move(taps_);
    }

  private:
    void put(const Place &place) {
        switch (place.make) {
        case Make::opened:
            if (fs::is_directory(place.path))
                open_folder(place.path);
            break;
        case Make::overlay:
            overlay(place.path);
            break;
        case Make::folder:
            folder(place.path);
            break;
        case Make::mounted:
            make_folder(place.path);
            mount_own("tmpfs", place.path, "mode=755");
            break;
        case Make::absent:
            break;
        case Make::link:
            own(place.path.parent_path());
            fs::create_symlink(place.text, place.path);
            break;
        case Make::fifo:
            taps_.push_back({place.text, fifo(place.path)});
            break;
        case Make::ptmx:
            own(place.path);
            if (ptmx_folder_ >= 0)
                mount(("/proc/self/fd/" + std::to_string(ptmx_folder_)).c_str(), place.path.c_str(), nullptr,
                      MS_BIND | MS_REC, nullptr);
            break;
        case Make::devpts:
            own(place.path);
            check(mount("devpts", place.path.c_str(), "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666"),
                  "mount " + place.path.string());
            break;
        case Make::disk:
            own(place.path);
            check(mount("tmpfs", place.path.c_str(), "tmpfs", MS_NOSUID, "mode=755,size=4m"),
                  "mount " + place.path.string());
            break;
        case Make::file:
        case Make::program:
            if (!made_.count(place.path))
                create(place.path, [&](const fs::path &at) { write(place, at); });
            break;
        }
    }

    static void write(const Place &place, const fs::path &at) {
        const bool program = place.make == Make::program;
        std::ofstream(at) << (program ? "#!/bin/sh\n" : "") << place.text;
        check(chmod(at.c_str(), program ? 0755 : 0644), at);
    }

    bool is_own(const fs::path &path) const {
        struct stat st;
        return stat(path.c_str(), &st) == 0 && own_.count(st.st_dev);
    }

    void mount_own(const char *type, const fs::path &path, const std::string &options) {
        check(mount(type, path.c_str(), type, MS_NOSUID, options.c_str()), "mount " + path.string());
        struct stat st;
        check(stat(path.c_str(), &st), path);
        own_.insert(st.st_dev);
    }

    // Makes `path` a folder of the sandbox in which entries can be created.
    void own(const fs::path &path) {
        if (is_own(path))
            return;
        if (fs::is_directory(path)) {
            open_folder(path);
        } else {
            own(path.parent_path());
            fs::create_directory(path);
        }
    }

    void open_folder(const fs::path &path) {
        int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct stat st = {};
        check(fd < 0 ? fd : fstat(fd, &st), path);
        mount_own("tmpfs", path, "mode=" + octal(st.st_mode & 07777));
        DIR *host = fdopendir(fd);
        if (!host)
            fail(path);
        while (const dirent *entry = readdir(host)) {
            std::string name = entry->d_name;
            if (name != "." && name != ".." && !has_place(path / name))
                bind_back(fd, name, path / name);
        }
        closedir(host);
    }

    // The folder behind `fd` is hidden by the new one; its entries are reached through the descriptor. One that cannot
    // be had (just removed, another user's) is left out.
    static void bind_back(int fd, const std::string &name, const fs::path &to) {
        std::error_code ignored;
        fs::path from = fs::path("/proc/self/fd") / std::to_string(fd) / name;
        fs::file_status status = fs::symlink_status(from, ignored);
        if (fs::is_symlink(status)) {
            fs::copy_symlink(from, to, ignored);
            return;
        }
        bool made = fs::is_directory(status) ? fs::create_directory(to, ignored) : touch(to);
        if (made && mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0)
            fs::remove(to, ignored);
    }

    void overlay(const fs::path &path) {
        int fd = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        check(fd, path);
        fs::path changes = overlay_changes, upper = changes / "upper";
        fs::create_directories(changes);
        mount_own("tmpfs", changes, "mode=755");
        fs::create_directories(upper);
        fs::create_directories(changes / "work");
        std::set<fs::path> made;
        for (const Place &place : places_) {
            const fs::path within = place.path.lexically_relative(path), at = upper / within;
            if (within == "." || *within.begin() == "..")
                continue;
            // Made here they are ours to change, even where the host has one that is not.
            fs::create_directories(at.parent_path());
            if (place.make == Make::folder || place.make == Make::mounted) {
                fs::create_directory(at);
            } else {
                write(place, at);
                made.insert(place.path);
            }
        }
        std::string options =
            "lowerdir=" + path.string() + ",upperdir=" + upper.string() + ",workdir=" + (changes / "work").string();
        std::vector<fs::path> below = mounts_below(path);
        try {
            mount_own("overlay", path, options + ",userxattr");
            // An overlay does not show what is mounted further down: a container's /etc/hosts, for example.
            for (const fs::path &to : below) {
                if (made.count(to))
                    continue;
                fs::path from = fs::path("/proc/self/fd") / std::to_string(fd) / to.lexically_relative(path);
                mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
            }
            made_ = std::move(made);
        } catch (const std::system_error &) {
            open_folder(path); // No overlays here, or too many upon each other.
        }
        close(fd);
    }

    void folder(const fs::path &path) {
        if (make_folder(path))
            return;
        if (!is_own(path)) {
            mount_own("tmpfs", path, "mode=755");
            return;
        }
        // Not a mount over it: a file must be able to move from one folder of /etc to another.
        std::error_code ignored;
        for (const fs::directory_entry &entry : fs::directory_iterator(path))
            fs::remove_all(entry, ignored);
    }

    // False when there is one.
    bool make_folder(const fs::path &path) {
        if (fs::exists(path))
            return false;
        own(path.parent_path());
        return fs::create_directory(path);
    }

    // A file where there is none is created there; one of the host is covered.
    template <typename Creator>
    void create(const fs::path &path, Creator creator) {
        if (!fs::exists(path)) {
            own(path.parent_path());
            creator(path);
            return;
        }
        fs::path cover = "/run/tavrik-sim/cover" / path.relative_path();
        fs::create_directories(cover.parent_path());
        creator(cover);
        check(mount(cover.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), "mount " + path.string());
    }

    int fifo(const fs::path &path) {
        create(path, [](const fs::path &at) { check(mkfifo(at.c_str(), 0666), at); });
        int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        check(fd, path);
        return fd;
    }

    bool has_place(const fs::path &path) const {
        for (const Place &place : places_) {
            if (place.path == path)
                return true;
        }
        return path == "/run/tavrik-sim";
    }

    static std::vector<fs::path> mounts_below(const fs::path &folder) {
        std::vector<fs::path> found;
        std::ifstream file("/proc/self/mountinfo");
        for (std::string line; std::getline(file, line);) {
            std::istringstream fields(line);
            std::string id, parent, device, root, point;
            fields >> id >> parent >> device >> root >> point;
            if (point.rfind(folder.string() + "/", 0) == 0)
                found.push_back(point);
        }
        return found;
    }

    static std::string octal(unsigned mode) {
        char text[16];
        snprintf(text, sizeof text, "%o", mode);
        return text;
    }

    static bool touch(const fs::path &path) {
        int fd = open(path.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        return fd >= 0 && close(fd) == 0;
    }

    std::vector<Place> places_;
    std::set<dev_t> own_;
    std::set<fs::path> made_; // together with the overlay that they are in
    std::vector<Tap> taps_;
    int ptmx_folder_ = -1;
};

void write_file(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    check(fd, path);
    ssize_t written = write(fd, text.data(), text.size());
    int error = errno;
    close(fd);
    errno = error;
    check(written < 0 ? -1 : 0, path);
}

// The map of a child namespace that has all ids of ours, unchanged.
std::string same_ids(const char *own_map) {
    std::string map;
    std::ifstream file(own_map);
    for (unsigned long inside, outside, count; file >> inside >> outside >> count;)
        map += std::to_string(inside) + " " + std::to_string(inside) + " " + std::to_string(count) + "\n";
    return map;
}

void bring_up_loopback() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    check(fd, "socket");
    struct ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    int rc = ioctl(fd, SIOCSIFFLAGS, &request);
    close(fd);
    check(rc, "bring up lo");
}

} // namespace

pid_t fork_into_namespaces() {
    long flags = SIGCHLD | CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET;
    return static_cast<pid_t>(syscall(SYS_clone, flags, nullptr, nullptr, nullptr, nullptr));
}

void part_from_host() {
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount");
}

void map_ids(pid_t child) {
    std::string base = "/proc/" + std::to_string(child) + "/";
    if (geteuid() == 0) {
        try {
            write_file(base + "uid_map", same_ids("/proc/self/uid_map"));
            write_file(base + "gid_map", same_ids("/proc/self/gid_map"));
            return;
        } catch (const std::system_error &) {
            // Root in name only, without the right to hand out ids.
        }
    }
    write_file(base + "uid_map", "0 " + std::to_string(geteuid()) + " 1\n");
    write_file(base + "setgroups", "deny");
    write_file(base + "gid_map", "0 " + std::to_string(getegid()) + " 1\n");
}

std::vector<Tap> build_sandbox() {
    std::vector<Tap> taps = Tree().build();
    bring_up_loopback();
    return taps;
}

} // namespace tavrik::sim

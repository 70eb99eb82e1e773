#include "state.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace tavrik::sim {
namespace {

constexpr size_t longest_name = 40;

std::string env(const char *name) {
    const char *value = getenv(name);
    return value ? value : "";
}

bool is_ours(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() && !(st.st_mode & 022);
}

// Inside a sandbox the ids are others: there the folder is found through the sandbox's own.
std::string base_folder() {
    std::string outer = env("TAVRIK_SIM"), runtime = env("XDG_RUNTIME_DIR");
    if (!outer.empty() && is_ours(fs::path(outer).parent_path()))
        return fs::path(outer).parent_path();
    if (is_ours(runtime) &&
        runtime.size() + sizeof "/tavrik-sim//control" + longest_name < sizeof(sockaddr_un::sun_path))
        return runtime + "/tavrik-sim";
    return "/tmp/tavrik-sim." + std::to_string(geteuid());
}

int try_connect(const std::string &folder) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string path = folder + "/control";
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    strcpy(address.sun_path, path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) < 0) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

} // namespace

StateFolder::StateFolder(const std::string &name) {
    if (name.size() > longest_name || name[0] == '.' || name.find('/') != std::string::npos)
        throw std::runtime_error("\"" + name + "\" cannot be the name of a sandbox");
    std::string base = base_folder();
    outside_ = open(fs::path(base).parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    std::string wanted = base + "/" + (name.empty() ? std::to_string(getpid()) : name);
    path_ = wanted;
    for (int i = 2; !claim(path_); i++) {
        if (!name.empty())
            throw std::runtime_error("a sandbox named \"" + name + "\" is running already");
        path_ = wanted + "-" + std::to_string(i);
    }
}

// The lock ends with the last process that holds the descriptor, so a folder without one is left over and free.
bool StateFolder::claim(const std::string &path) {
    for (;;) {
        std::string base = fs::path(path).parent_path();
        mkdir(base.c_str(), 0700);
        mkdir(path.c_str(), 0700);
        int fd = is_ours(base) ? open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
        if (fd < 0 && is_ours(base) && errno == ENOENT)
            continue; // Another sandbox has just ended and took the empty folder away.
        if (fd < 0)
            throw std::runtime_error("no folder " + path + ": " + strerror(is_ours(base) ? errno : EPERM));
        if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
            close(fd);
            return false;
        }
        struct stat locked, named;
        if (fstat(fd, &locked) == 0 && stat(path.c_str(), &named) == 0 && locked.st_ino == named.st_ino) {
            unlink((path + "/control").c_str());
            return true;
        }
        close(fd);
    }
}

void StateFolder::remove() const {
    fs::path all = fs::path(path_).parent_path().filename();
    fs::path folder = all / fs::path(path_).filename();
    unlinkat(outside_, (folder / "control").c_str(), 0);
    unlinkat(outside_, folder.c_str(), AT_REMOVEDIR);
    unlinkat(outside_, all.c_str(), AT_REMOVEDIR);
}

int connect_to_sandbox(const std::string &name) {
    std::string wanted = name.empty() ? env("TAVRIK_SIM") : name;
    if (!wanted.empty()) {
        int fd = try_connect(wanted.find('/') == std::string::npos ? base_folder() + "/" + wanted : wanted);
        if (fd < 0)
            throw std::runtime_error("no sandbox \"" + wanted + "\" is running (" + strerror(errno) + ")");
        return fd;
    }
    int newest = -1;
    struct timespec newest_time = {};
    std::error_code none;
    for (const fs::directory_entry &entry : fs::directory_iterator(base_folder(), none)) {
        struct stat st;
        int fd = stat(entry.path().c_str(), &st) == 0 ? try_connect(entry.path()) : -1;
        if (fd < 0)
            continue;
        bool newer = newest < 0 || st.st_mtim.tv_sec > newest_time.tv_sec ||
                     (st.st_mtim.tv_sec == newest_time.tv_sec && st.st_mtim.tv_nsec > newest_time.tv_nsec);
        close(newer ? newest : fd);
        if (newer) {
            newest = fd;
            newest_time = st.st_mtim;
        }
    }
    if (newest < 0)
        throw std::runtime_error("no sandbox is running");
    return newest;
}

} // namespace tavrik::sim

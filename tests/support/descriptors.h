// The descriptors of the process: how many there are, and none to be had.
#pragma once

#include <filesystem>
#include <sys/resource.h>
#include <unistd.h>

// Of "/proc/self/fd", or of another folder.
inline long entries_of(const char *folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

// The process without a free descriptor.
class NoDescriptors {
  public:
    explicit NoDescriptors(bool none = true) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int next = none ? dup(0) : -1; // the lowest free number
        if (next < 0)
            return;
        close(next);
        const rlimit limit = {rlim_t(next), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    NoDescriptors(const NoDescriptors &) = delete;
    NoDescriptors &operator=(const NoDescriptors &) = delete;
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

  private:
    rlimit before_;
};

// Does a URL answer? Asked by libcurl, which is loaded when it is first needed: linked with, it would cost every
// program several megabytes and some thirty libraries.
//
// libcurl opens descriptors without close-on-exec, starts a thread of its own with the caller's signals, and cannot end
// as long as a silent name server keeps that one. So each check has a thread to itself, which takes no signals, has a
// table of descriptors of its own, and is left behind when it does not end in time.
#include "core/log.h"
#include "core/sync.h"
#include "core/thread.h"
#include "tavrik_sdk.h"

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>
#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

using namespace tavrik;

namespace {

constexpr char kLibrary[] = "libcurl.so.4";
constexpr long kConnectSeconds = 10;
constexpr long kCheckSeconds = 30;
constexpr long kOk = 200;

struct Curl {
    decltype(&curl_global_init) global_init;
    decltype(&curl_easy_init) easy_init;
    decltype(&curl_easy_setopt) easy_setopt;
    decltype(&curl_easy_perform) easy_perform;
    decltype(&curl_easy_getinfo) easy_getinfo;
    decltype(&curl_easy_cleanup) easy_cleanup;
    decltype(&curl_easy_strerror) easy_strerror;
};

Mutex g_mutex;
bool g_loaded; // once, and for as long as the process lives
Curl g_curl;
Condition g_ended; // a check; there is one once libcurl is loaded

template <class Function>
bool find(void *library, const char *name, Function &function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function;
}

bool load_curl(Site site) {
    Lock lock(g_mutex);
    if (g_loaded)
        return true;
    void *library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    const bool found = library && find(library, "curl_global_init", g_curl.global_init) &&
                       find(library, "curl_easy_init", g_curl.easy_init) &&
                       find(library, "curl_easy_setopt", g_curl.easy_setopt) &&
                       find(library, "curl_easy_perform", g_curl.easy_perform) &&
                       find(library, "curl_easy_getinfo", g_curl.easy_getinfo) &&
                       find(library, "curl_easy_cleanup", g_curl.easy_cleanup) &&
                       find(library, "curl_easy_strerror", g_curl.easy_strerror);
    if (!found || g_curl.global_init(CURL_GLOBAL_ALL)) {
        const char *why = found ? "it cannot be initialised" : dlerror();
        log(Level::error, site, "%s cannot be loaded: %s", kLibrary, LogText(why ? why : "").c_str());
        return false;
    }
    g_ended.make();
    return g_loaded = true;
}

// The thread sanitizer takes equal numbers in two tables for one descriptor.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define unshare(what) -1
#endif
#endif

// From here on this thread, and those that it starts, open and close descriptors by themselves: what libcurl opens is
// in no child of the host, and what the host closes is closed. Where that is refused sockets are close-on-exec at
// least.
void part_descriptors() {
    if (unshare(CLONE_FILES))
        return;
    DIR *folder = opendir("/proc/thread-self/fd");
    if (!folder)
        return;
    while (const dirent *entry = readdir(folder)) {
        const int fd = atoi(entry->d_name);
        if (fd > 2 && fd != dirfd(folder))
            close(fd);
    }
    closedir(folder);
}

curl_socket_t open_socket(void *, curlsocktype, curl_sockaddr *address) {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// One check, shared by its thread and the caller that may give up waiting. Whoever is last frees it.
struct Check {
    bool done, abandoned; // under g_mutex
    CURLcode error;
    long status;
    char url[];
};

void ask(Check &check) {
    CURL *const handle = g_curl.easy_init();
    if (!handle) {
        check.error = CURLE_FAILED_INIT;
        return;
    }
    const auto set = [&](CURLoption option, auto value) {
        if (!check.error)
            check.error = g_curl.easy_setopt(handle, option, value);
    };
    set(CURLOPT_URL, static_cast<const char *>(check.url));
    set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    set(CURLOPT_TIMEOUT, kCheckSeconds);
    set(CURLOPT_HEADER, 1L);
    set(CURLOPT_NOBODY, 1L);
    set(CURLOPT_WRITEFUNCTION, write_data);
    // CURLOPT_PROTOCOLS_STR is what newer releases want, and modules have older ones.
    set(CURLOPT_PROTOCOLS, long(CURLPROTO_HTTP | CURLPROTO_HTTPS));
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_OPENSOCKETFUNCTION, open_socket);
    if (!check.error)
        check.error = g_curl.easy_perform(handle);
    if (!check.error)
        check.error = g_curl.easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &check.status);
    g_curl.easy_cleanup(handle);
}

// Logs nothing: what a log has open is not open here.
void *run_check(void *argument) {
    auto *check = static_cast<Check *>(argument);
    part_descriptors();
    ask(*check);
    g_mutex.lock();
    check->done = true;
    const bool abandoned = check->abandoned;
    g_ended.wake_all();
    g_mutex.unlock();
    if (abandoned)
        free(check);
    return nullptr;
}

// Has it ended until `deadline`? If not it is its thread's from now on.
bool ended(Check &check, Deadline deadline) {
    Lock lock(g_mutex);
    while (!check.done && g_ended.wait(g_mutex, deadline)) {
    }
    check.abandoned = !check.done;
    return check.done;
}

} // namespace

int query_http_file_is_exist(const char *url) {
    if (!url) {
        TAVRIK_LOG_ERROR("Param is NULL");
        return -1;
    }
    if (!*url) {
        TAVRIK_LOG_ERROR("Param is error");
        return -1;
    }
    const Deadline deadline = Deadline::in(kCheckSeconds * 1000);
    if (!load_curl(Site::here()))
        return -1;
    const size_t size = strlen(url) + 1;
    auto *check = static_cast<Check *>(calloc(1, sizeof(Check) + size));
    if (!check)
        return -1;
    memcpy(check->url, url, size);
    pthread_t thread;
    if (start_thread("tavrikcheck", run_check, check, &thread)) {
        free(check);
        return -1;
    }
    CURLcode error = CURLE_OPERATION_TIMEDOUT;
    long status = 0;
    if (ended(*check, deadline)) {
        // What libcurl's libraries clean up at the end of a thread must be through before the process may end.
        pthread_join(thread, nullptr);
        error = check->error;
        status = check->status;
        free(check);
    } else {
        pthread_detach(thread);
    }
    if (error)
        TAVRIK_LOG_DEBUG("no answer: %s", g_curl.easy_strerror(error));
    else if (status != kOk)
        TAVRIK_LOG_DEBUG("answered with %ld", status);
    return error || status != kOk ? -1 : 0;
}

size_t write_data(const void *, size_t, size_t count, void *) {
    return count;
}

#include "core/uci_store.h"

#include "tavrik_sdk.h"

#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

extern "C" {
#include <uci.h>
}

namespace tavrik {
namespace {

constexpr char kFolder[] = UCI_CONFDIR, kDeltaFolder[] = UCI_SAVEDIR;
constexpr int kAttempts = 4;    // the first, and three more after lost updates
constexpr size_t kSpare = 4096; // room beside a file's text and what changes

Mutex g_mutex;

// Tries again until it succeeds, or fails for good after kUciLockMs: nobody is waited for without limit.
template <class Try>
bool within_limit(Try attempt) {
    constexpr timespec kPause = {0, 1000000};
    for (const Deadline deadline = Deadline::in(kUciLockMs); !attempt(); nanosleep(&kPause, nullptr))
        if (deadline.passed())
            return false;
    return true;
}

// A file that cannot be locked at all is as free as one that is not there.
bool locked(int fd, int how) {
    return within_limit([=] { return !flock(fd, how | LOCK_NB) || (errno != EWOULDBLOCK && errno != EINTR); });
}

struct Bytes {
    ~Bytes() { free(data); }
    bool operator==(const Bytes &other) const {
        return length == other.length && (!length || !memcmp(data, other.data, length));
    }
    bool begins(const Bytes &other) const {
        return length <= other.length && (!length || !memcmp(data, other.data, length));
    }
    bool read_file(const char *path) {
        const Fd fd(open(path, O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!fd || fstat(fd.get(), &st) || !(data = static_cast<char *>(malloc(size_t(st.st_size) + 1))))
            return false;
        for (ssize_t n; (n = read(fd.get(), data + length, size_t(st.st_size) - length)) != 0;)
            if (n > 0)
                length += size_t(n);
            else if (errno != EINTR)
                return false;
        return true;
    }

    char *data = nullptr;
    size_t length = 0;
};

// Beside the file that it may replace. Its name is that of libuci's own temporary files.
class Temporary {
  public:
    Temporary(const char *folder, const char *name) {
        snprintf(path_, sizeof path_, "%.60s/.%.40s.uci-XXXXXX", folder, name);
        fd_.reset(mkostemp(path_, O_CLOEXEC));
    }
    ~Temporary() {
        if (fd_)
            unlink(path_);
    }
    bool has_room(size_t size) {
        const int error = fd_ ? posix_fallocate(fd_.get(), 0, off_t(size)) : errno;
        errno = error;
        return !error || error == EOPNOTSUPP; // where it cannot be known
    }
    bool become(const char *path, const Bytes &bytes, mode_t mode) {
        size_t done = 0;
        while (fd_ && done < bytes.length) {
            const ssize_t n = write(fd_.get(), bytes.data + done, bytes.length - done);
            if (n < 0 && errno != EINTR)
                return false;
            done += n > 0 ? size_t(n) : 0;
        }
        if (!fd_ || fchmod(fd_.get(), mode) || fsync(fd_.get()) || rename(path_, path))
            return false;
        fd_.reset();
        return true;
    }

  private:
    char path_[128];
    Fd fd_;
};

const char *last_part(const char *path) {
    const char *const slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

void sync_folder_of(const char *path) {
    char folder[64];
    snprintf(folder, sizeof folder, "%.*s", int(last_part(path) - path), path);
    const Fd fd(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        fsync(fd.get());
}

uci_ptr pointer(const char *package, const char *section, const char *option, const char *value) {
    uci_ptr ptr = {};
    ptr.package = package;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    return ptr;
}

void remove_empty_delta(const char *path) {
    const Fd fd(*path ? open(path, O_RDONLY | O_CLOEXEC) : -1);
    struct stat st;
    if (fd && !flock(fd.get(), LOCK_EX | LOCK_NB) && !fstat(fd.get(), &st) && !st.st_size)
        unlink(path);
}

uci_option *option_of(uci_section *section, const char *name) {
    uci_element *element;
    uci_foreach_element(&section->options, element) if (!strcmp(element->name, name)) return uci_to_option(element);
    return nullptr;
}

} // namespace

UciLock::UciLock() : held_(within_limit([] { return !pthread_mutex_trylock(g_mutex.native()); })) {
    if (!held_)
        return;
    folder_.reset(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder_ && !locked(folder_.get(), LOCK_EX)) {
        held_ = false;
        g_mutex.unlock();
    }
}

UciLock::~UciLock() {
    if (!held_)
        return;
    if (folder_)
        flock(folder_.get(), LOCK_UN); // a child that was forked meanwhile has the descriptor, too
    g_mutex.unlock();
}

UciStore::UciStore(Site site) : site_(site) {
    if (!lock_)
        log(Level::error, site_, "uci: another user does not come to an end");
    else
        open_context();
}

// Frees the package with the context: after a failed commit libuci would free it twice otherwise.
UciStore::~UciStore() {
    forget_changes();
    if (context_)
        uci_free_context(context_);
}

bool UciStore::open_context() {
    if (context_)
        uci_free_context(context_);
    package_ = nullptr;
    return (context_ = uci_alloc_context());
}

bool UciStore::load(const char *package) {
    const bool whole_path = *package == '/';
    snprintf(name_, sizeof name_, "%s", last_part(package));
    snprintf(path_, sizeof path_, "%s%s%s", whole_path ? "" : kFolder, whole_path ? "" : "/", package);
    if (!whole_path)
        snprintf(delta_, sizeof delta_, "%s/%s", kDeltaFolder, package);
    // With these held, libuci's own shared locks, which wait for ever, are to be had at once.
    const Fd file(open(path_, O_RDONLY | O_CLOEXEC)), delta(*delta_ ? open(delta_, O_RDONLY | O_CLOEXEC) : -1);
    if ((file && !locked(file.get(), LOCK_SH)) || (delta && !locked(delta.get(), LOCK_SH))) {
        log(Level::error, site_, "uci: %s is locked", path_);
        return false;
    }
    return !uci_load(context_, whole_path ? path_ : name_, &package_);
}

bool UciStore::load_again() {
    char path[sizeof path_];
    memcpy(path, path_, sizeof path);
    return open_context() && load(*delta_ ? last_part(path) : path);
}

uci_section *UciStore::next(uci_section *after) const {
    uci_list *const entry = after ? after->e.list.next : package_->sections.next;
    return entry == &package_->sections ? nullptr : uci_to_section(list_to_element(entry));
}

uci_section *UciStore::section(const char *name) const {
    uci_section *found = next();
    while (found && strcmp(found->e.name, name))
        found = next(found);
    return found;
}

const char *UciStore::name(const uci_section *section) {
    return section->e.name;
}

const char *UciStore::text(uci_section *section, const char *option) {
    const uci_option *const found = option_of(section, option);
    return found && found->type == UCI_TYPE_STRING ? found->v.string : nullptr;
}

bool UciStore::set(const char *section, const char *option, const char *value) {
    return change(Kind::set, section, option, value);
}
bool UciStore::add(const char *section, const char *option, const char *value) {
    return change(Kind::add, section, option, value);
}
bool UciStore::remove(const char *section, const char *option) {
    return change(Kind::remove, section, option, "");
}

bool UciStore::change(Kind kind, const char *section, const char *option, const char *value) {
    const size_t lengths[] = {strlen(section) + 1, option ? strlen(option) + 1 : 0, strlen(value) + 1};
    auto *const made = static_cast<Change *>(malloc(sizeof(Change) + lengths[0] + lengths[1] + lengths[2]));
    if (made) {
        char *const texts = reinterpret_cast<char *>(made + 1);
        *made = {nullptr, kind, static_cast<char *>(memcpy(texts, section, lengths[0])),
                 option ? static_cast<char *>(memcpy(texts + lengths[0], option, lengths[1])) : nullptr,
                 static_cast<char *>(memcpy(texts + lengths[0] + lengths[1], value, lengths[2]))};
        *last_ = made;
        last_ = &made->next;
    }
    if (made && apply(*made))
        return true;
    refused_ = true;
    return false;
}

bool UciStore::apply(const Change &change) {
    uci_ptr ptr = pointer(name_, change.section, change.option, change.value);
    uci_section *found;
    switch (change.kind) {
    case Kind::set:
        return !uci_set(context_, &ptr);
    case Kind::add:
        return !uci_add_list(context_, &ptr);
    case Kind::remove:
        found = section(change.section);
        if (!found || (change.option && !option_of(found, change.option)))
            return true;
        ptr.value = nullptr;
        return !uci_delete(context_, &ptr);
    }
    return false;
}

bool UciStore::reapply() {
    for (const Change *change = changes_; change; change = change->next)
        if (!apply(*change))
            return false;
    return true;
}

bool UciStore::holds(const Change &change) const {
    uci_section *const found = section(change.section);
    if (!change.option)
        return (change.kind == Kind::set) == (found != nullptr);
    uci_option *const option = found ? option_of(found, change.option) : nullptr;
    if (change.kind == Kind::remove || !*change.value)
        return !option;
    if (change.kind == Kind::set)
        return option && option->type == UCI_TYPE_STRING && !strcmp(option->v.string, change.value);
    if (!option || option->type != UCI_TYPE_LIST)
        return false;
    uci_element *element;
    uci_foreach_element(&option->v.list, element) if (!strcmp(element->name, change.value)) return true;
    return false;
}

bool UciStore::holds_all() const {
    for (const Change *change = changes_; change; change = change->next) {
        const Change *later = change->kind == Kind::add ? nullptr : change->next;
        while (later && (strcmp(later->section, change->section) || !later->option != !change->option ||
                         (later->option && strcmp(later->option, change->option))))
            later = later->next;
        if (!later && !holds(*change))
            return false;
    }
    return true;
}

// One commit by libuci, whose answer says little: what it was to write is compared with what the file holds.
UciStore::Written UciStore::write() {
    size_t room = kSpare;
    for (const Change *change = changes_; change; change = change->next)
        room += 64 + strlen(change->section) + strlen(change->value);
    Bytes before, after, expected;
    struct stat st, delta_st = {};
    if (stat(path_, &st) || !before.read_file(path_) || !Temporary(kFolder, name_).has_room(before.length + room))
        return Written::no;
    if (*delta_) {
        mkdir(kDeltaFolder, UCI_DIRMODE);
        const Fd delta(Temporary(kDeltaFolder, name_).has_room(room)
                           ? open(delta_, O_WRONLY | O_CREAT | O_CLOEXEC, UCI_FILEMODE)
                           : -1);
        if (!delta || fstat(delta.get(), &delta_st) || !locked(delta.get(), LOCK_EX))
            return Written::no;
    }
    {
        // libuci takes this lock again, without limit: it must be seen free, though it cannot be kept.
        const Fd file(open(path_, O_RDWR | O_CLOEXEC));
        if (!file || !locked(file.get(), LOCK_EX))
            return Written::no;
    }

    const bool failed = uci_commit(context_, &package_, false);
    FILE *const text = failed ? nullptr : open_memstream(&expected.data, &expected.length);
    if (text) {
        uci_export(context_, text, package_, false);
        fclose(text);
    }
    const bool readable = after.read_file(path_);
    if (text && readable && after == expected && holds_all()) {
        sync_folder_of(path_);
        return Written::yes;
    }
    // What was staged for this commit must not come into force some day.
    const int64_t staged = delta_st.st_size;
    if (*delta_ && !stat(delta_, &delta_st) && delta_st.st_size > staged && truncate(delta_, off_t(staged)))
        log(Level::warning, site_, "uci: %s keeps what was not committed", delta_);
    // A file that ends early is no other writer's: the disk was full after all.
    if (readable && !(after == before) && (failed || (text && after.begins(expected)))) {
        char folder[sizeof path_];
        snprintf(folder, sizeof folder, "%.*s", int(last_part(path_) - path_ - 1), path_);
        if (!Temporary(folder, name_).become(path_, before, st.st_mode & 07777))
            log(Level::error, site_, "uci: %s is damaged", path_);
        return Written::no;
    }
    return failed ? Written::no : Written::lost;
}

int UciStore::commit() {
    const char *why = "a change was refused";
    int error = 0;
    for (int attempt = 0; package_ && !refused_; ++attempt) {
        errno = 0;
        const Written written = write();
        error = errno;
        // Another writer may have taken over what was staged here.
        if (written == Written::yes || (written == Written::lost && load_again() && holds_all())) {
            forget_changes();
            remove_empty_delta(delta_);
            return 0;
        }
        why = written == Written::no ? "the file cannot be written" : "lost to another writer";
        if (written == Written::no || attempt == kAttempts - 1 || !package_ || !reapply())
            break;
    }
    log(Level::error, site_, "uci: %s not committed: %s (%s)", path_, why, strerror(error));
    remove_empty_delta(delta_);
    package_ = nullptr;
    return -1;
}

void UciStore::forget_changes() {
    while (Change *const change = changes_) {
        changes_ = change->next;
        free(change);
    }
    last_ = &changes_;
}

void UciStore::remove_leftovers(const char *package) {
    const UciLock lock;
    char delta[64], temporary[64];
    snprintf(delta, sizeof delta, "%s/%s", kDeltaFolder, package);
    snprintf(temporary, sizeof temporary, ".%s.uci-", package);
    for (const char *folder : {kFolder, kDeltaFolder}) {
        DIR *const entries = lock ? opendir(folder) : nullptr;
        while (const dirent *const entry = entries ? readdir(entries) : nullptr) {
            if (strncmp(entry->d_name, temporary, strlen(temporary)))
                continue;
            // One that is locked is in use, by a program that knows nothing of the lock held here.
            const Fd fd(openat(dirfd(entries), entry->d_name, O_RDONLY | O_CLOEXEC));
            if (fd && !flock(fd.get(), LOCK_EX | LOCK_NB))
                unlinkat(dirfd(entries), entry->d_name, 0);
        }
        if (entries)
            closedir(entries);
    }
    if (lock)
        remove_empty_delta(delta);
}

} // namespace tavrik

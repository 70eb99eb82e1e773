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

// Who comes first is served first: a thread that stores in a loop does not keep the others out.
struct {
    Mutex mutex;
    Condition released;
    unsigned waiting;
    bool held, handed_over;
} g_turn;

pthread_once_t g_once = PTHREAD_ONCE_INIT;

// A child has none of the threads that hold it or wait.
void after_fork() {
    g_turn.mutex = Mutex();
    g_turn.waiting = 0;
    g_turn.held = g_turn.handed_over = false;
    g_turn.released.make();
}

void set_up() {
    g_turn.released.make();
    pthread_atfork(nullptr, nullptr, after_fork);
}

bool take_turn(Deadline deadline) {
    pthread_once(&g_once, set_up);
    const Lock lock(g_turn.mutex);
    if (!g_turn.held)
        return g_turn.held = true;
    ++g_turn.waiting;
    while (!g_turn.handed_over && g_turn.released.wait(g_turn.mutex, deadline)) {
    }
    --g_turn.waiting;
    const bool mine = g_turn.handed_over;
    g_turn.handed_over = false;
    errno = ETIMEDOUT;
    return mine;
}

void end_turn() {
    const Lock lock(g_turn.mutex);
    if ((g_turn.handed_over = g_turn.waiting))
        g_turn.released.wake_one();
    else
        g_turn.held = false;
}

// flock() has no time limit of its own. What cannot be locked at all is as free as what is not there.
bool locked(int fd, int how, Deadline deadline) {
    constexpr timespec kPause = {0, 1000000};
    while (flock(fd, how | LOCK_NB)) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            return true;
        if (deadline.passed()) {
            errno = ETIMEDOUT;
            return false;
        }
        nanosleep(&kPause, nullptr);
    }
    return true;
}

// Unlocked before it is closed: a child that was forked meanwhile has the descriptor, too.
class LockedFile {
  public:
    LockedFile(const char *path, int flags, int how, Deadline deadline)
        : fd_(open(path, flags | O_CLOEXEC, UCI_FILEMODE)),
          held_(fd_ && locked(fd_.get(), how, deadline)) {}
    ~LockedFile() {
        const int saved = errno;
        if (held_)
            flock(fd_.get(), LOCK_UN);
        errno = saved;
    }
    int get() const { return fd_.get(); }
    bool held() const { return held_; }
    bool taken() const { return fd_ && !held_; } // by another
    // libuci reads again for ever what cannot be read.
    bool bad() const {
        char part[1024];
        ssize_t n = fd_ ? ssize_t(sizeof part) : 0;
        while (n == ssize_t(sizeof part) || (n < 0 && errno == EINTR))
            n = read(fd_.get(), part, sizeof part);
        return n < 0;
    }

  private:
    const Fd fd_;
    const bool held_;
};

struct Bytes {
    ~Bytes() { free(data); }
    bool operator==(const Bytes &other) const { return length == other.length && begins(other); }
    // Is the start, or all, of the other.
    bool begins(const Bytes &other) const {
        return length <= other.length && (!length || !memcmp(data, other.data, length));
    }
    bool read_file(const char *path) {
        const Fd fd(open(path, O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!fd || fstat(fd.get(), &st) || !(data = static_cast<char *>(malloc(size_t(st.st_size) + 1))))
            return false;
        while (length < size_t(st.st_size)) {
            const ssize_t n = read(fd.get(), data + length, size_t(st.st_size) - length);
            if (n == 0 || (n < 0 && errno != EINTR))
                return false;
            length += n > 0 ? size_t(n) : 0;
        }
        return true;
    }

    char *data = nullptr;
    size_t length = 0;
};

const char *last_part(const char *path) {
    const char *const slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// The path of a file's folder, or of a file beside it that has a name like libuci's own temporary ones.
struct Path {
    static Path folder_of(const char *path) {
        Path folder;
        snprintf(folder.text, sizeof folder.text, "%.*s", int(last_part(path) - path - 1), path);
        return folder;
    }
    static Path temporary(const char *folder, const char *package, const char *end) {
        Path temporary;
        snprintf(temporary.text, sizeof temporary.text, "%.60s/.%.40s.uci-%s", folder, package, end);
        return temporary;
    }
    char text[128];
};

// libuci does not look whether its temporary file takes all that it writes.
bool has_room(const char *folder, const char *package, size_t size) {
    Path path = Path::temporary(folder, package, "XXXXXX");
    const Fd fd(mkostemp(path.text, O_CLOEXEC));
    if (!fd)
        return false;
    const int error = posix_fallocate(fd.get(), 0, off_t(size));
    unlink(path.text);
    errno = error;
    return !error || error == EOPNOTSUPP; // where it cannot be known
}

bool reserve(int fd, int64_t from, size_t size) {
    return !fallocate(fd, FALLOC_FL_KEEP_SIZE, off_t(from), off_t(size)) || errno == EOPNOTSUPP;
}

void sync_folder_of(const char *path) {
    const Fd fd(open(Path::folder_of(path).text, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        fsync(fd.get());
}

// A second name of the file while a new one takes its place: to put it back needs no room, and cannot fail halfway.
class Backup {
  public:
    Backup(const char *path, const char *package, const struct stat &before)
        : path_(path),
          kept_(Path::temporary(Path::folder_of(path).text, package, "before")),
          before_(before) {
        const auto keep = [this] { return !linkat(AT_FDCWD, path_, AT_FDCWD, kept_.text, AT_SYMLINK_FOLLOW); };
        there_ = keep() || (errno == EEXIST && !unlink(kept_.text) && keep()); // of one that was killed
    }
    ~Backup() {
        if (there_)
            unlink(kept_.text);
    }
    Backup(const Backup &) = delete;
    Backup &operator=(const Backup &) = delete;
    explicit operator bool() const { return there_; }
    bool was_replaced() const {
        struct stat now;
        return !stat(path_, &now) && (now.st_ino != before_.st_ino || now.st_dev != before_.st_dev);
    }
    bool put_back() const {
        char *const real = realpath(path_, nullptr);
        const bool done = real && !rename(kept_.text, real);
        free(real);
        sync_folder_of(path_);
        return done;
    }

  private:
    const char *const path_;
    const Path kept_;
    const struct stat &before_;
    bool there_;
};

uci_ptr pointer(const char *package, const char *section, const char *option, const char *value) {
    uci_ptr ptr = {};
    ptr.package = package;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    return ptr;
}

void remove_empty_delta(const char *path) {
    const LockedFile delta(path, O_RDONLY, LOCK_EX, Deadline::in(0));
    struct stat st;
    if (delta.held() && !fstat(delta.get(), &st) && !st.st_size)
        unlink(path);
}

bool export_to(uci_context *context, uci_package *package, Bytes &bytes) {
    FILE *const text = open_memstream(&bytes.data, &bytes.length);
    const bool done = text && !uci_export(context, text, package, false);
    return text && !fclose(text) && done;
}

uci_option *option_of(uci_section *section, const char *name) {
    uci_element *element;
    uci_foreach_element(&section->options, element) if (!strcmp(element->name, name)) return uci_to_option(element);
    return nullptr;
}

} // namespace

UciLock::UciLock(Deadline deadline) : held_(take_turn(deadline)) {
    if (!held_)
        return;
    folder_.reset(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder_ ? !locked(folder_.get(), LOCK_EX, deadline) : errno != ENOENT) {
        held_ = false;
        const int error = errno;
        end_turn();
        errno = error;
    }
}

UciLock::~UciLock() {
    if (!held_)
        return;
    if (folder_)
        flock(folder_.get(), LOCK_UN); // a child that was forked meanwhile has the descriptor, too
    end_turn();
}

UciStore::UciStore(Site site) : site_(site), lock_(deadline_) {
    if (!lock_)
        log(Level::error, site_, "uci: %s",
            errno == ETIMEDOUT ? "another user does not come to an end" : strerror(errno));
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
    const LockedFile file(path_, O_RDONLY, LOCK_SH, deadline_), delta(delta_, O_RDONLY, LOCK_SH, deadline_);
    if (file.taken() || delta.taken()) {
        log(Level::error, site_, "uci: %s is locked", path_);
        return false;
    }
    if (file.bad() || delta.bad())
        return false;
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
    while (found && strcmp(found->e.name, name) != 0)
        found = next(found);
    return found;
}

const char *UciStore::name(const uci_section *section) {
    return section->e.name;
}
const char *UciStore::type(const uci_section *section) {
    return section->type;
}

const char *UciStore::text(uci_section *section, const char *option) {
    const uci_option *const found = option_of(section, option);
    return found && found->type == UCI_TYPE_STRING ? found->v.string : nullptr;
}

bool UciStore::has(const char *section_name, const char *option) const {
    uci_section *const found = section(section_name);
    return found && option_of(found, option);
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
        return (change.kind == Kind::set && *change.value) == (found != nullptr);
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
        while (later && !later->overrules(*change))
            later = later->next;
        if (!later && !holds(*change))
            return false;
    }
    return true;
}

bool UciStore::Change::overrules(const Change &earlier) const {
    return !strcmp(section, earlier.section) && (option ? earlier.option && !strcmp(option, earlier.option)
                                                        : !earlier.option || kind == Kind::remove || !*value);
}

// One commit by libuci, whose answer says little: what it was to write is compared with what the file holds.
UciStore::Written UciStore::write() {
    size_t room = kSpare;
    for (const Change *change = changes_; change; change = change->next)
        room += 64 + strlen(change->section) + 4 * strlen(change->value); // a quote takes four bytes
    int64_t staged = 0;
    if (*delta_) {
        const LockedFile delta(delta_, O_WRONLY | O_CREAT, LOCK_EX, deadline_);
        struct stat st;
        if (!delta.held() || fstat(delta.get(), &st) || !reserve(delta.get(), st.st_size, room))
            return cannot();
        staged = st.st_size;
    }
    struct stat before;
    {
        // libuci takes this lock again, without limit: it must be seen free, though it cannot be kept.
        const LockedFile file(path_, O_RDWR, LOCK_EX, deadline_);
        if (!file.held() || fstat(file.get(), &before))
            return cannot();
    }
    if (!has_room(kFolder, name_, size_t(before.st_size) + room))
        return cannot();
    const Backup backup(path_, name_, before);
    if (!backup)
        return cannot();

    errno = 0;
    const bool failed = uci_commit(context_, &package_, false);
    error_ = errno;
    Bytes expected, after;
    bool known = !failed && export_to(context_, package_, expected);
    const bool readable = known && after.read_file(path_);
    if (readable && after == expected && holds_all()) {
        sync_folder_of(path_);
        return Written::yes;
    }
    // What was staged for this commit must not come into force some day.
    struct stat st;
    if (*delta_ && !stat(delta_, &st) && st.st_size > staged && truncate(delta_, off_t(staged)))
        log(Level::warning, site_, "uci: %s keeps what was not committed", delta_);
    if (failed)
        return Written::no;
    // What ends early is no other writer's file: the disk was full after all.
    if (backup.was_replaced() && !(readable && !after.begins(expected))) {
        if (!backup.put_back())
            log(Level::error, site_, "uci: %s is damaged", path_);
        return Written::no;
    }
    return Written::lost;
}

UciStore::Written UciStore::cannot() {
    error_ = errno;
    return Written::no;
}

int UciStore::commit() {
    if (*delta_)
        mkdir(kDeltaFolder, UCI_DIRMODE);
    deadline_ = Deadline::in(kUciLockMs);
    Written written = Written::no;
    for (int attempt = 0; package_ && !refused_ && attempt < kAttempts; ++attempt) {
        if (attempt && !reapply())
            break;
        written = write();
        // Another writer may have taken over what was staged here.
        if (written == Written::yes || (written == Written::lost && load_again() && holds_all())) {
            forget_changes();
            remove_empty_delta(delta_);
            return 0;
        }
        if (written == Written::no)
            break;
    }
    log(Level::error, site_, "uci: %s not committed: %s", path_,
        refused_                   ? "a change was refused"
        : written == Written::lost ? "lost to another writer"
        : error_                   ? strerror(error_)
                                   : "libuci failed");
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
    if (!lock)
        return;
    const char *const name = last_part(package);
    char temporary[64];
    snprintf(temporary, sizeof temporary, ".%s.uci-", name);
    const auto sweep = [&temporary](const char *folder) {
        DIR *const entries = opendir(folder);
        while (const dirent *const entry = entries ? readdir(entries) : nullptr) {
            if (strncmp(entry->d_name, temporary, strlen(temporary)) != 0)
                continue;
            // One that is locked is in use, by a program that knows nothing of the lock held here.
            const Fd fd(openat(dirfd(entries), entry->d_name, O_RDONLY | O_CLOEXEC));
            if (fd && !flock(fd.get(), LOCK_EX | LOCK_NB))
                unlinkat(dirfd(entries), entry->d_name, 0);
        }
        if (entries)
            closedir(entries);
    };
    sweep(kFolder);
    if (name != package) {
        sweep(Path::folder_of(package).text);
    } else {
        char delta[64];
        snprintf(delta, sizeof delta, "%s/%s", kDeltaFolder, name);
        remove_empty_delta(delta);
    }
}

} // namespace tavrik

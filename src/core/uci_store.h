// One package of the uci store, read and written without losing anything:
//
//   UciStore store;
//   if (!store.allocated() || !store.load("network"))
//       return -1;
//   store.set("wan0", "proto", "static");
//   return store.commit();
//
// libuci answers 0 when it has lost data: a full disk leaves an empty file, a full delta folder drops the change, and
// of two processes that write at once one may undo the other. Here a commit has reached the file, or is -1 with the
// file as it was. No exchange with the modem or the bus belongs between the constructor and the destructor: they hold
// the one lock that all uses of uci share, libuci's hidden parsing state included.
#pragma once

#include <stddef.h>

#include "core/log.h"
#include "core/sync.h"

struct uci_context;
struct uci_package;
struct uci_section;

namespace tavrik {

constexpr int kUciLockMs = 5000; // neither loading nor a commit waits longer for the locks of others

class UciLock {
  public:
    explicit UciLock(Deadline deadline = Deadline::in(kUciLockMs));
    ~UciLock();
    UciLock(const UciLock &) = delete;
    UciLock &operator=(const UciLock &) = delete;
    explicit operator bool() const { return held_; }

  private:
    bool held_;
    Fd folder_; // locked, too, against other processes; the file itself changes with each commit
};

class UciStore {
  public:
    explicit UciStore(Site site = Site::here());
    ~UciStore();
    UciStore(const UciStore &) = delete;
    UciStore &operator=(const UciStore &) = delete;

    // There is a context: memory, and the lock in time.
    bool allocated() const { return context_; }
    // A package below /etc/config by name, or a file by its whole path. Once.
    bool load(const char *package);
    // Both, and the line that tells which of them failed.
    bool open(const char *package, const char *not_allocated, const char *not_loaded) {
        const char *const failed = !allocated() ? not_allocated : load(package) ? nullptr : not_loaded;
        if (failed)
            log(Level::error, site_, "%s", failed);
        return !failed;
    }

    // Sections in their order; pointers and texts are valid until the next commit.
    uci_section *next(uci_section *after = nullptr) const;
    uci_section *section(const char *name) const;
    static const char *name(const uci_section *section);
    static const char *type(const uci_section *section);
    // NULL for an option that is missing or a list.
    static const char *text(uci_section *section, const char *option);
    const char *text(const char *section_name, const char *option) const {
        uci_section *const found = section(section_name);
        return found ? text(found, option) : nullptr;
    }

    bool has(const char *section_name, const char *option) const; // text or list

    // Changes, until the next commit. `option` NULL: the section itself, of type `value`. An empty value deletes the
    // option. False when libuci refuses one; the following commit fails then.
    bool set(const char *section, const char *option, const char *value);
    bool add(const char *section, const char *option, const char *value); // to a list
    bool remove(const char *section, const char *option);                 // text or list; also when there is none

    // Writes the changes and reads them back. 0, or -1 with a line that tells why and the file as it was; nothing else
    // can be done with this object then.
    int commit();

    // Removes what a writer of the package, by name or whole path, that was killed has left behind.
    static void remove_leftovers(const char *package);

  private:
    enum class Kind : unsigned char { set, add, remove };
    struct Change {
        Change *next;
        Kind kind;
        const char *section, *option, *value; // behind this
        bool overrules(const Change &earlier) const;
    };
    enum class Written { yes, lost, no };

    bool open_context();
    bool load_again();
    bool change(Kind kind, const char *section, const char *option, const char *value);
    bool apply(const Change &change);
    bool reapply();
    bool holds(const Change &change) const;
    bool holds_all() const;
    Written write();
    Written cannot();
    void forget_changes();

    const Site site_;
    Deadline deadline_ = Deadline::in(kUciLockMs);
    const UciLock lock_;
    uci_context *context_ = nullptr;
    uci_package *package_ = nullptr;
    char name_[32] = {};  // as libuci knows it
    char path_[64] = {};  // of the file
    char delta_[64] = {}; // where libuci stages changes; empty for a file outside of /etc/config
    Change *changes_ = nullptr;
    Change **last_ = &changes_;
    bool refused_ = false;
    int error_ = 0; // errno of what failed last
};

} // namespace tavrik

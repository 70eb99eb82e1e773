// Automatic sleep, wake locks and reboot, over the kernel's power files.
#include "core/log.h"
#include "core/shell.h"
#include "tavrik_sdk.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

using namespace tavrik;

namespace {

constexpr char kAutoSleep[] = "/sys/power/autosleep";
constexpr char kWakeLock[] = "/sys/power/wake_lock";
constexpr char kWakeUnlock[] = "/sys/power/wake_unlock";
constexpr size_t kCommandSize = 128; // of the command as it reads without quotes and redirection of errors
constexpr size_t kOutputSize = 512;

// Writes `text`, which the shell does not look into, and `more` behind it into `file`. False when it cannot be run or
// the shell reports an error.
bool write_file(const char *text, const char *more, const char *file) {
    if (strlen("echo  > ") + strlen(text) + strlen(more) + strlen(file) >= kCommandSize)
        return false;
    char quoted[4 * kCommandSize], command[5 * kCommandSize], output[kOutputSize];
    char *out = quoted;
    for (const char *in = text; *in; ++in)
        out = *in == '\'' ? stpcpy(out, "'\\''") : (*out = *in, out + 1);
    *out = 0;
    // Not echo, which reads options and backslashes in a name. The braces: what the shell says about a file that it
    // cannot write is to be seen too.
    snprintf(command, sizeof command, "{ printf '%%s\\n' '%s%s' > %s; } 2>&1", quoted, more, file);
    if (system_handle(command, output, sizeof output))
        return false;
    strlwr(output);
    return !strstr(output, "error");
}

bool bad_name(const char *name, Site site = Site::here()) {
    if (!is_insert_special(name))
        return false;
    log(Level::error, site, "Parameter input error");
    return true;
}

} // namespace

int Tavrik_DM_SetAutoSleep(int on) {
    if (write_file(on ? "mem" : "off", "", kAutoSleep))
        return 0;
    TAVRIK_LOG_ERROR("set autosleep mode failed");
    return -1;
}

int Tavrik_DM_CreatSourceLock(const char *name, uint32_t timeout_ms) {
    if (bad_name(name))
        return -1;
    char timeout[24] = "";
    if (timeout_ms) // six zeros make nanoseconds of it
        snprintf(timeout, sizeof timeout, " %lu000000", (unsigned long)timeout_ms);
    if (timeout_ms == UINT32_MAX || !write_file(name, timeout, kWakeLock)) {
        TAVRIK_LOG_ERROR("creat source lock %s failed", LogText(name).c_str());
        return -1;
    }
    return 0;
}

int Tavrik_DM_ViewSourceLock(char *locks, int size) {
    if (!locks || size <= 0) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    char command[kCommandSize], output[kOutputSize];
    snprintf(command, sizeof command, "cat %s", kWakeLock);
    if (system_handle(command, output, sizeof output)) {
        TAVRIK_LOG_ERROR("view source lock failed");
        return -1;
    }
    const size_t length = strlen(output);
    if (length && output[length - 1] == '\n')
        output[length - 1] = 0;
    strncpy(locks, output, size_t(size));
    return 0;
}

int Tavrik_DM_RemoveSourceLock(const char *name) {
    if (bad_name(name))
        return -1;
    char locks[kOutputSize];
    if (Tavrik_DM_ViewSourceLock(locks, sizeof locks)) {
        TAVRIK_LOG_ERROR("view source lock failed");
        return -1;
    }
    char *rest;
    for (char *lock = strtok_r(locks, " ", &rest); lock; lock = strtok_r(nullptr, " ", &rest)) {
        if (strcmp(lock, name) != 0)
            continue;
        if (write_file(name, "", kWakeUnlock))
            return 0;
        TAVRIK_LOG_ERROR("remove source lock %s failed", LogText(name).c_str());
        return -1;
    }
    TAVRIK_LOG_ERROR("%s is not in wakeup_lock", LogText(name).c_str());
    return -1;
}

int Tavrik_DM_Reboot(void) {
    sync();
    if (!run_shell("reboot"))
        return 0;
    TAVRIK_LOG_ERROR("system reboot failed");
    return -1;
}

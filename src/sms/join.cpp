// Tavrik_SMS_Join: messages that wait for their parts.
#include "core/log.h"
#include "core/sync.h"
#include "sms/utf8.h"
#include "tavrik_sdk.h"

#include <stdlib.h>
#include <string.h>

namespace tavrik {
namespace {

constexpr int kMostSets = 32;

struct Part {
    char *text; // NULL until it came
    int length;
    uint16_t first_half, last_half;
};

struct Set {
    Part *parts; // `total` of them; NULL when the set is free
    int total, missing, reference;
    int64_t touched_s;
    char number[sizeof Tavrik_SmsDetail::number];
};

Mutex g_lock;
Set g_sets[kMostSets];

// Goes on while the module sleeps.
int64_t seconds_since_boot() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

void drop(Set &set) {
    for (int i = 0; i < set.total; ++i)
        free(set.parts[i].text);
    free(set.parts);
    set = {};
}

// The set that the part belongs to, an empty one when it is the first. NULL without memory.
Set *set_of(const Tavrik_SmsDetail &detail, int64_t now_s) {
    Set *room = g_sets;
    for (Set &set : g_sets) {
        if (set.parts && now_s - set.touched_s > TAVRIK_SMS_JOIN_SECONDS) {
            TAVRIK_LOG_INFO("%d of %d parts never came", set.missing, set.total);
            drop(set);
        }
        if (set.parts && set.reference == detail.reference && set.total == detail.total &&
            !strcmp(set.number, detail.number))
            return &set;
        if (!set.parts ? room->parts != nullptr : room->parts && set.touched_s < room->touched_s)
            room = &set;
    }
    auto *parts = static_cast<Part *>(calloc(size_t(detail.total), sizeof(Part)));
    if (!parts)
        return nullptr;
    if (room->parts)
        drop(*room);
    room->parts = parts;
    room->total = room->missing = detail.total;
    room->reference = detail.reference;
    strcpy(room->number, detail.number);
    return room;
}

char *copy_of(const char *text, int length) {
    auto *copy = static_cast<char *>(malloc(size_t(length) + 1));
    if (copy) {
        memcpy(copy, text, size_t(length));
        copy[length] = 0;
    }
    return copy;
}

char *joined(const Set &set, int32_t &length) {
    size_t room = 1;
    for (int i = 0; i < set.total; ++i)
        room += size_t(set.parts[i].length);
    auto *text = static_cast<char *>(malloc(room));
    if (!text)
        return nullptr;
    char *out = text;
    uint16_t half = 0;
    for (int i = 0; i < set.total; ++i) {
        const Part &part = set.parts[i];
        int skipped = 0;
        // A pair across the cut: both sides have U+FFFD for it, 6 bytes for its 4.
        if (half && part.first_half && out - text >= kReplacementBytes && part.length >= kReplacementBytes) {
            out = put_utf8(out - kReplacementBytes, joined_halves(half, part.first_half));
            skipped = kReplacementBytes;
        }
        memcpy(out, part.text + skipped, size_t(part.length - skipped));
        out += part.length - skipped;
        half = part.last_half;
    }
    *out = 0;
    length = int32_t(out - text);
    return text;
}

bool add(const Tavrik_SmsDetail &detail, char *&text, int32_t &length) {
    char *copy = copy_of(detail.text, detail.length);
    if (!copy)
        return false;
    if (detail.total <= 1 || detail.sequence < 1 || detail.sequence > detail.total) {
        text = copy;
        length = detail.length;
        return true;
    }
    Lock hold(g_lock);
    const int64_t now_s = seconds_since_boot();
    Set *set = set_of(detail, now_s);
    if (!set) {
        free(copy);
        return false;
    }
    Part &part = set->parts[detail.sequence - 1];
    set->missing -= !part.text;
    set->touched_s = now_s;
    free(part.text);
    part = {copy, detail.length, detail.first_half, detail.last_half};
    if (set->missing)
        return true;
    text = joined(*set, length);
    if (text)
        drop(*set);
    return text;
}

} // namespace
} // namespace tavrik

int Tavrik_SMS_Join(const Tavrik_SmsDetail *detail, char **text, int32_t *length) {
    if (text)
        *text = nullptr;
    if (!detail || !text || detail->size < sizeof *detail || detail->length < 0 ||
        detail->length >= int(sizeof detail->text) || detail->total > 255 ||
        !memchr(detail->number, 0, sizeof detail->number)) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    int32_t whole_length = 0;
    if (!tavrik::add(*detail, *text, whole_length)) {
        TAVRIK_LOG_ERROR("no memory for the parts of a message");
        return -1;
    }
    if (length)
        *length = whole_length;
    return *text ? 1 : 0;
}

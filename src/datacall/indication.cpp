// "+ZCONSTAT: <state>,<cid>[,<cause>[,<ip type>]]", or behind the prefix a context event in the words of +CGEV
// (3GPP TS 27.007 clause 10.1.19): "+ZCONSTAT: NW PDN DEACT 3".
#include "datacall/cid_table.h"
#include "indication/fields.h"
#include "indication/parsers.h"

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

static_assert(sizeof(Tavrik_DataEvent) == 64 && offsetof(Tavrik_DataEvent, cid) == 8 &&
                  offsetof(Tavrik_DataEvent, profile_idx) == 12 && offsetof(Tavrik_DataEvent, state) == 16 &&
                  offsetof(Tavrik_DataEvent, cause) == 20 && offsetof(Tavrik_DataEvent, ip_type) == 24 &&
                  offsetof(Tavrik_DataEvent, ifname) == 28,
              "layout that applications were built with");

namespace tavrik {
namespace {

constexpr int kDataCallEvent = 2, kStartedDataCallEvent = 4;
constexpr int kLastCid = 255;
constexpr int kLastProfile = 15;

} // namespace

// PDN events name the context first; the others name its primary context, or type and address, in front of it.
int get_cid_from_cgev_line(const char *line) {
    const char *event = strstr(line, "ACT ");
    if (!event)
        return -1;
    const char *field = event + 4;
    if (!strstr(line, "PDN ")) {
        const int in_front = isdigit(static_cast<unsigned char>(*field)) ? 1 : 2;
        for (int i = 0; i < in_front && field; ++i)
            field = (field = strchr(field, ',')) ? field + 1 : nullptr;
    }
    char *end;
    const int cid = field ? decimal(field, &end) : -1;
    return field && end != field ? cid : -1;
}

int on_datacall_changed(char *line) {
    Tavrik_DataEvent event = {};
    event.size = sizeof event;
    event.cause = event.ip_type = TAVRIK_UNKNOWN_S32;
    if (strstr(line, "ACT ")) {
        event.cid = get_cid_from_cgev_line(line);
        event.state = strstr(line, "DEACT ") ? 0 : 1;
    } else {
        Fields fields(line);
        if (!fields.number(event.state) || !fields.number(event.cid))
            return -1;
        fields.number(event.cause);
        fields.number(event.ip_type);
    }
    if (event.state < 0 || event.state > 1 || event.cid < 1 || event.cid > kLastCid)
        return -1;
    const int profile = event.cid - 1;
    event.profile_idx = profile <= kLastProfile ? profile : TAVRIK_UNKNOWN_S32;
    event.kind = !event.state && context_of(profile) ? kStartedDataCallEvent : kDataCallEvent;
    snprintf(event.ifname, sizeof event.ifname, "ccinet%d", profile);
    deliver(kSlotData, int(event.kind), &event);
    return 0;
}

} // namespace tavrik

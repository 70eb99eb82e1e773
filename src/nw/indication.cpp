// Registration, serving cell and signal, as the modem reports them unasked.
#include "indication/fields.h"
#include "indication/parsers.h"

#include <initializer_list>
#include <stddef.h>
#include <string.h>

static_assert(sizeof(Tavrik_NwEvent) == 8 && offsetof(Tavrik_NwEvent, source_access) == 1 &&
                  offsetof(Tavrik_NwEvent, area) == 2 && offsetof(Tavrik_NwEvent, cell) == 4,
              "layout that applications were built with");
static_assert(sizeof(Tavrik_CellEvent) == 64 && offsetof(Tavrik_CellEvent, act) == 8 &&
                  offsetof(Tavrik_CellEvent, mcc) == 12 && offsetof(Tavrik_CellEvent, mnc) == 14 &&
                  offsetof(Tavrik_CellEvent, mnc_digits) == 16 && offsetof(Tavrik_CellEvent, bandwidth) == 17 &&
                  offsetof(Tavrik_CellEvent, band) == 18 && offsetof(Tavrik_CellEvent, area) == 20 &&
                  offsetof(Tavrik_CellEvent, cell) == 24 && offsetof(Tavrik_CellEvent, arfcn) == 28 &&
                  offsetof(Tavrik_CellEvent, phys_id) == 32 && offsetof(Tavrik_CellEvent, level) == 34 &&
                  offsetof(Tavrik_CellEvent, quality) == 36 && offsetof(Tavrik_CellEvent, sinr) == 38,
              "layout");
static_assert(sizeof(Tavrik_SignalEvent) == 32 && offsetof(Tavrik_SignalEvent, rxlev) == 8 &&
                  offsetof(Tavrik_SignalEvent, rsrp) == 13,
              "layout");

namespace tavrik {
namespace {

constexpr int kNetworkEvent = 5, kCellEvent = 7, kSignalEvent = 8;

} // namespace

// "+CREG: <stat>[,<lac>,<ci>[,<AcT>…]]", "+CGREG: …", "+CEREG: …": what is not known is left out or empty.
int on_network_changed(char *line) {
    constexpr uint8_t kAccessUnknown = 15;
    const int source = strstr(line, "+CEREG") ? 3 : strstr(line, "+CGREG") ? 2 : 1;
    Fields fields(line);
    Tavrik_NwEvent event = {};
    if (!fields.number(event.state))
        return -1;
    fields.number(event.area, 16);
    fields.number(event.cell, 16);
    uint8_t access = kAccessUnknown;
    if (!fields.number(access) || access > kAccessUnknown)
        access = kAccessUnknown;
    event.source_access = uint8_t(source << 4 | access);
    deliver(kSlotNetwork, kNetworkEvent, &event);
    return 0;
}

// "+EEMLTESVC: <mcc>,<mnc>,<area>,<cell>,<arfcn>,<band>,<bandwidth>,<phys id>,<level>,<quality>,<sinr>", and the same
// for the others; area and cell in hexadecimal. From the fifth field on each may be left out or empty.
int on_cellinfo_changed(char *line) {
    const int act = strstr(line, "+EEMGINFOSVC") ? 2 : strstr(line, "+EEMUMTSSVC") ? 3 : 4;
    Fields fields(line);
    Tavrik_CellEvent event = {};
    event.kind = kCellEvent;
    event.size = sizeof event;
    event.act = act;
    const bool has_mcc = fields.number(event.mcc);
    char *mnc = fields.text();
    if (!has_mcc || !mnc || !fields.number(event.area, 16) || !fields.number(event.cell, 16))
        return -1;
    event.mnc_digits = uint8_t(strspn(mnc, "0123456789"));
    if (mnc[event.mnc_digits] || event.mnc_digits < 2 || event.mnc_digits > 3)
        return -1;
    event.mnc = uint16_t(decimal(mnc));
    event.arfcn = TAVRIK_UNKNOWN_U32;
    event.band = event.phys_id = TAVRIK_UNKNOWN_U16;
    event.bandwidth = TAVRIK_UNKNOWN_U8;
    event.level = event.quality = event.sinr = TAVRIK_UNKNOWN_S16;
    fields.number(event.arfcn);
    fields.number(event.band);
    fields.number(event.bandwidth);
    fields.number(event.phys_id);
    fields.number(event.level);
    fields.number(event.quality);
    fields.number(event.sinr);
    deliver(kSlotCell, kCellEvent, &event);
    return 0;
}

// "+CESQ: <rxlev>,<ber>,<rscp>,<ecno>,<rsrq>,<rsrp>"
int on_CESQinfo_changed(char *line) {
    Fields fields(line);
    Tavrik_SignalEvent event = {};
    event.kind = kSignalEvent;
    event.size = sizeof event;
    for (uint8_t *value : {&event.rxlev, &event.ber, &event.rscp, &event.ecno, &event.rsrq, &event.rsrp})
        if (!fields.number(*value))
            return -1;
    deliver(kSlotCell, kSignalEvent, &event);
    return 0;
}

} // namespace tavrik

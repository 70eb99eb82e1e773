// What the indication channel and the families know of each other: a parser for each kind of line, defined in the
// family that owns the record, and the way of a record to the application.
#pragma once

#include <stdint.h>

namespace tavrik {

// The record of eCall's event.
struct EcallEvent {
    int32_t value;
    const char *text; // or NULL
};

// Slots of handlers and callbacks.
enum Slot { kSlotSms, kSlotVoice, kSlotEcall, kSlotCell, kSlotNetwork, kSlotSim, kSlotData, kSlotCount };

// tavrik_ubus_deinit(), and meanwhile a callback on the loop thread does not wait for a callback on this one.
void end_loop();

// Hands an event to the slot's handler, on this thread. False when there is none: then nobody has seen the record.
bool deliver(Slot slot, int event, void *record);

// Each parses a line that it may cut into fields, and delivers its event. 0, or -1 when the line cannot be parsed.
int on_new_sms(char *line);
int on_voice_call_info_changed(char *line);
int on_datacall_changed(char *line);
int on_ecall_info_changed(char *line);
int on_network_changed(char *line);
int on_simcard_changed(char *line);
int on_cellinfo_changed(char *line);
int on_CESQinfo_changed(char *line);

// A call has ended, with the cause that the modem gave, or NULL: an eCall event if an eCall reported since the last
// one.
void on_ecall_disconnected(const char *cause);

// The SMS family as before its start. The registry calls it, locked, when everything is removed.
void reset_sms();

// The context that a line speaks of in the words of +CGEV, "NW PDN DEACT 3"; -1 for none.
int get_cid_from_cgev_line(const char *line);

} // namespace tavrik

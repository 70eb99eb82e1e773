// Call shapes of the module's closed RIL utility library, and the service side that only the simulator needs.
//
// A request blob holds the field "reqid" and, with a payload, "data"; a reply blob holds "reqid", "error" and, where
// the service has something to say, "data". Payloads are fixed-width little-endian whatever the machine, so that a
// simulator on a PC can serve a 32-bit ARM program. Numbers of RilCall and RilDataCall are little-endian, too.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct blob_attr;
struct blob_buf;

// The reply to request 9, the current calls: their number (32 bits) and one of these for each; no payload without
// calls.
struct RilCall {
    int32_t state;      // 0 active, 1 held, 2 dialling, 3 alerting, 4 incoming, 5 waiting, 6 to 8 of the module's own
    int32_t index;      // from 1
    int32_t terminated; // 0 mobile-originated, 1 mobile-terminated
    char number[52];    // without a zero byte when it fills the field
};
static_assert(sizeof(RilCall) == 64, "as the service writes it");

// The reply to request 57, the data calls: one of these for each, no payload without calls. The reply to request 596,
// a data call that was set up: one. Several addresses stand in one text with a blank between, of a dual-stack call the
// IPv4 ones first. A text that fills its field has no zero byte.
struct RilDataCall {
    int32_t status;     // 0, else why the call could not be set up; then the rest means nothing
    int32_t retry_time; // after so many ms another attempt makes sense, -1 when the service does not say
    int32_t cid;        // number of the PDP context, from 1
    int32_t active;     // 0 defined only, 1 active
    char type[32];      // IP, IPV6, IPV4V6
    char ifname[32];
    char apn[128];
    char addr[176];
    char dns[176];
    char gateway[176];
    char submask[176];
};
static_assert(sizeof(RilDataCall) == 912, "as the service writes it");

extern "C" {
// Fills `request` (initialised by the caller) with request `id` and `length` bytes of payload. 0, or -1 without memory.
int rilutil_makeRequestBlobDSMaster(struct blob_buf *request, uint32_t id, const void *data, size_t length);

// Splits a reply into its four parts. `*data` is a copy of the payload followed by a zero byte, NULL without payload;
// release it with rilutil_freeResponseData. 0, or -1 when `reply` is no reply (nothing is stored then).
int rilutil_parseResponseDSMaster(struct blob_attr *reply, uint32_t *id, int32_t *error, void **data, size_t *length);
void rilutil_freeResponseData(uint32_t id, void *data, size_t length);

// Service side. `*data` points into `request`, NULL without payload. 0, or -1 when it is no request.
int rilutil_parse_request(struct blob_attr *request, uint32_t *id, const void **data, size_t *length);
// `data` NULL leaves the payload out. 0, or -1 without memory.
int rilutil_make_reply(struct blob_buf *reply, uint32_t id, int32_t error, const void *data, size_t length);
}

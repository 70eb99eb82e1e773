// Call shapes of the module's closed RIL utility library, and the service side that only the simulator needs.
//
// A request blob holds the field "reqid" and, with a payload, "data"; a reply blob holds "reqid", "error" and, where
// the service has something to say, "data". Payloads are fixed-width little-endian whatever the machine, so that a
// simulator on a PC can serve a 32-bit ARM program. Numbers of RilCall are little-endian, too.
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

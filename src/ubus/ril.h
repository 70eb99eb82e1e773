// Owners for the blobs of a RIL exchange: nothing is freed by hand in a family.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "bus.h"
#include "core/log.h"
#include "rilutil.h"

namespace tavrik {

// A message under construction. `ok` is false without memory.
class BlobBuf {
  public:
    BlobBuf() : ok(!blob_buf_init(&buf, 0)) {}
    ~BlobBuf() { blob_buf_free(&buf); }
    BlobBuf(const BlobBuf &) = delete;
    BlobBuf &operator=(const BlobBuf &) = delete;
    blob_attr *head() { return buf.head; }

    blob_buf buf = {};
    bool ok;
};

// A string field of a message that ends where it says; NULL for none.
const char *text_of(blob_attr *field);

// A request to the object "ril": its number alone, or with a payload.
class RilRequest : public BlobBuf {
  public:
    explicit RilRequest(uint32_t id) { ok = ok && !blobmsg_add_u32(&buf, "reqid", id); }
    RilRequest(uint32_t id, const void *data, size_t length) {
        ok = ok && !rilutil_makeRequestBlobDSMaster(&buf, id, data, length);
    }
};

// The four parts of a reply; `data` has a zero byte behind its `length` bytes, and is NULL without payload.
class RilReply {
  public:
    explicit RilReply(blob_attr *message)
        : parsed(message && !rilutil_parseResponseDSMaster(message, &id, &error, &data, &length)) {}
    ~RilReply() {
        if (data)
            rilutil_freeResponseData(id, data, length);
    }
    RilReply(const RilReply &) = delete;
    RilReply &operator=(const RilReply &) = delete;

    uint32_t id = 0;
    int32_t error = 0;
    void *data = nullptr;
    size_t length = 0;
    const bool parsed;
};

// For usable(): a reply to whatever request.
constexpr uint32_t kAnyRequest = 0;

// Is it a reply to `request`, without error and with data? Logs for the caller why not.
bool usable(const RilReply &reply, uint32_t request, Site site = Site::here());
// The same whatever its data, for requests whose reply may have none.
bool answered(const RilReply &reply, uint32_t request, Site site = Site::here());

} // namespace tavrik

#include "rilutil.h"

#include <stdlib.h>
#include <string.h>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

enum { kId, kError, kData, kFields };

const blobmsg_policy kPolicy[kFields] = {
    {"reqid", BLOBMSG_TYPE_INT32},
    {"error", BLOBMSG_TYPE_INT32},
    {"data", BLOBMSG_TYPE_UNSPEC},
};

bool parse(blob_attr *message, blob_attr *(&field)[kFields]) {
    memset(field, 0, sizeof field);
    return message && !blobmsg_parse(kPolicy, kFields, field, blob_data(message), blob_len(message)) && field[kId];
}

} // namespace

int rilutil_makeRequestBlobDSMaster(blob_buf *request, uint32_t id, const void *data, size_t length) {
    if (blobmsg_add_u32(request, "reqid", id))
        return -1;
    return data && blobmsg_add_field(request, BLOBMSG_TYPE_UNSPEC, "data", data, (unsigned)length) ? -1 : 0;
}

int rilutil_parse_request(blob_attr *request, uint32_t *id, const void **data, size_t *length) {
    blob_attr *field[kFields];
    if (!parse(request, field))
        return -1;
    *id = blobmsg_get_u32(field[kId]);
    *data = field[kData] ? blobmsg_data(field[kData]) : nullptr;
    *length = field[kData] ? blobmsg_data_len(field[kData]) : 0;
    return 0;
}

int rilutil_make_reply(blob_buf *reply, uint32_t id, int32_t error, const void *data, size_t length) {
    if (blobmsg_add_u32(reply, "reqid", id) || blobmsg_add_u32(reply, "error", (uint32_t)error))
        return -1;
    return data && blobmsg_add_field(reply, BLOBMSG_TYPE_UNSPEC, "data", data, (unsigned)length) ? -1 : 0;
}

int rilutil_parseResponseDSMaster(blob_attr *reply, uint32_t *id, int32_t *error, void **data, size_t *length) {
    blob_attr *field[kFields];
    if (!parse(reply, field) || !field[kError])
        return -1;
    char *copy = nullptr;
    size_t size = 0;
    if (field[kData]) {
        size = blobmsg_data_len(field[kData]);
        copy = static_cast<char *>(malloc(size + 1));
        if (!copy)
            return -1;
        memcpy(copy, blobmsg_data(field[kData]), size);
        copy[size] = 0;
    }
    *id = blobmsg_get_u32(field[kId]);
    *error = (int32_t)blobmsg_get_u32(field[kError]);
    *data = copy;
    *length = size;
    return 0;
}

void rilutil_freeResponseData(uint32_t id, void *data, size_t length) {
    (void)id;
    (void)length;
    free(data);
}

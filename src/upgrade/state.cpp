// How far an upgrade is, as the over-the-air service tells it.
#include "core/log.h"
#include "core/sync.h"
#include "tavrik_sdk.h"
#include "ubus/connection.h"
#include "ubus/ril.h"

#include <string.h>

using namespace tavrik;

namespace {

constexpr int kQueryMs = 30000;
constexpr size_t kWordSize = TAVRIK_UPDATE_WORD_SIZE;

// The last word that the service told anybody. A reply without one leaves it.
Mutex g_mutex;
char g_update_state[kWordSize];

// What a query and its reply share.
struct Query {
    bool told;
    char word[kWordSize];
};

// Named as the exported handler, because its line in the log bears that name.
void query_update_state_cb(blob_attr *message, Query &query) {
    static const blobmsg_policy kPolicy = {"response", BLOBMSG_TYPE_STRING};
    blob_attr *field = nullptr;
    if (!message || blobmsg_parse(&kPolicy, 1, &field, blob_data(message), blob_len(message)))
        return;
    const char *text = text_of(field);
    if (!text)
        return;
    query = {true, {}};
    memcpy(query.word, text, strnlen(text, kWordSize - 1));
    {
        Lock lock(g_mutex);
        memcpy(g_update_state, query.word, kWordSize);
    }
    TAVRIK_LOG_INFO(" g_update_state:%s", LogText(query.word).c_str());
}

void on_reply(ubus_request *request, int, blob_attr *message) {
    query_update_state_cb(message, *static_cast<Query *>(request->priv));
}

// In the order in which a word is compared, by what it begins with.
constexpr struct {
    const char *word;
    int32_t state;
} kStates[] = {{"updating", TAVRIK_UPDATE_UPDATING},
               {"success", TAVRIK_UPDATE_SUCCESS},
               {"failed", TAVRIK_UPDATE_FAILED},
               {"not start", TAVRIK_UPDATE_NOT_STARTED}};

int query_state(int32_t *state, char *word, Site site = Site::here()) {
    if (!state || !word) {
        log(Level::error, site, "Parameter input error");
        return -1;
    }
    *word = 0;
    BusConnection bus(kQueryMs);
    if (!bus.open()) {
        log(Level::error, site, "Failed to connect to ubus");
        return -1;
    }
    BlobBuf message;
    uint32_t ota;
    Query query = {};
    if (!message.ok || blobmsg_add_string(&message.buf, "type", "1") || bus.lookup("ota", &ota) ||
        bus.invoke(ota, "query", message.head(), on_reply, &query))
        return -1;
    // Its own word, whatever another thread's query is told meanwhile.
    if (!query.told) {
        Lock lock(g_mutex);
        memcpy(query.word, g_update_state, kWordSize);
    }
    memcpy(word, query.word, kWordSize);
    for (const auto &known : kStates)
        if (!strncmp(query.word, known.word, strlen(known.word))) {
            *state = known.state;
            return 0;
        }
    return -1;
}

} // namespace

int Tavrik_Query_Update_State(int32_t *state) {
    char word[kWordSize];
    return query_state(state, word);
}

int Tavrik_Query_Update_StateEx(int32_t *state, char *word) {
    return query_state(state, word);
}

void query_update_state_cb(ubus_request *, int, blob_attr *message) {
    Query query;
    query_update_state_cb(message, query);
}

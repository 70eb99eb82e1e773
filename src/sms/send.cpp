// Sending through the module's SMS service, ubus object "sms". What a send and its reply share belongs to that send.
#include "core/text.h"
#include "sms/callback.h"
#include "tavrik_sdk.h"
#include "ubus/async.h"
#include "ubus/ril.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

using namespace tavrik;

static_assert(sizeof(SmsMessage) == 324 && offsetof(SmsMessage, encoding) == 4 && offsetof(SmsMessage, number) == 8 &&
                  offsetof(SmsMessage, text) == 58 && offsetof(SmsMessage, length) == 316 &&
                  offsetof(SmsMessage, result) == 320,
              "applications are built with this layout");

namespace {

constexpr int kMostAscii = 160;
constexpr int kMostUnits = 210; // 70 characters of 3 bytes
constexpr int kTextMs = 10000;
constexpr int kPduMs = 25000;

// The strings of the table "sms" in a reply, in the order of their policy. False when it cannot be read.
template <size_t count>
bool parse_reply(blob_attr *message, const blobmsg_policy (&policy)[count], blob_attr *(&fields)[count]) {
    static const blobmsg_policy kTable = {"sms", BLOBMSG_TYPE_TABLE};
    blob_attr *table = nullptr;
    return message && !blobmsg_parse(&kTable, 1, &table, blob_data(message), blob_len(message)) && table &&
           !blobmsg_parse(policy, count, fields, blobmsg_data(table), blobmsg_data_len(table));
}

// Both are named as the exported handlers, because their lines in the log bear these names. False without a result.

bool sms_recv_send_msg_cb(blob_attr *message, int32_t &result) {
    static const blobmsg_policy kPolicy[] = {
        {"resp", BLOBMSG_TYPE_STRING}, {"smsid", BLOBMSG_TYPE_STRING}, {"smsRef", BLOBMSG_TYPE_STRING}};
    blob_attr *fields[3] = {};
    if (!parse_reply(message, kPolicy, fields)) {
        TAVRIK_LOG_ERROR("blobmsg_parse failed");
        return false;
    }
    const char *resp = text_of(fields[0]);
    if (!resp || !*resp || !fields[1] || !fields[2]) {
        TAVRIK_LOG_ERROR("resp is null");
        return false;
    }
    result = decimal(resp);
    return true;
}

bool sms_pdu_recv_send_msg_cb(blob_attr *message, int32_t &result) {
    static const blobmsg_policy kPolicy[] = {{"resp", BLOBMSG_TYPE_STRING}, {"smsid", BLOBMSG_TYPE_STRING}};
    blob_attr *fields[2] = {};
    if (!parse_reply(message, kPolicy, fields)) {
        TAVRIK_LOG_ERROR("blobmsg_parse failed");
        return false;
    }
    const char *resp = text_of(fields[0]);
    if (!resp || !*resp || !fields[1])
        return false;
    result = decimal(resp);
    return true;
}

struct Method {
    const char *name;
    bool (*parse)(blob_attr *message, int32_t &result);
    const char *handler; // the name it has in the log
    int timeout_ms;
};

constexpr Method kSendText = {"sms.send", sms_recv_send_msg_cb, "sms_recv_send_msg_cb", kTextMs};
constexpr Method kSendPdu = {"sms.send_pdu", sms_pdu_recv_send_msg_cb, "sms_pdu_recv_send_msg_cb", kPduMs};

// One send: the first usable reply counts, and a service that sends it twice is heard once.
struct Send {
    const Method *method;
    Tavrik_SmsSendCb callback; // of this send alone; NULL: the SMS callback
    void *user;
    bool answered;
    int32_t result;

    void take(blob_attr *message) {
        if (answered || !method->parse(message, result))
            return;
        answered = true;
        if (!callback)
            announce_result(result, {method->handler, __LINE__});
    }
};

void on_reply(ubus_request *request, int, blob_attr *message) {
    static_cast<Send *>(request->priv)->take(message);
}

void on_end(void *priv, AsyncEnd end, int) {
    const Send send = *static_cast<Send *>(priv);
    free(priv);
    if (!send.callback)
        return;
    int status = TAVRIK_SMS_FAILED;
    if (send.answered)
        status = TAVRIK_SMS_ANSWERED;
    else if (end == AsyncEnd::timed_out)
        status = TAVRIK_SMS_TIMED_OUT;
    else if (end == AsyncEnd::aborted)
        status = TAVRIK_SMS_ABORTED;
    send.callback(send.user, status, send.result);
}

// The request of either method: one table named "sms".
class SmsRequest : public BlobBuf {
  public:
    SmsRequest(const char *number, const char *body, bool gsm7) {
        fill({{"id", "-1"},
              {"gsm7", gsm7 ? "1" : "0"},
              {"address", number},
              {"date", "23,9,24,14,8,30,+8"},
              {"protocol", "0"},
              {"body", body}});
    }
    explicit SmsRequest(const char *pdu) { fill({{"pdu", pdu}}); }

  private:
    struct Field {
        const char *name, *value;
    };
    template <size_t count>
    void fill(const Field (&fields)[count]) {
        void *table = ok ? blobmsg_open_table(&buf, "sms") : nullptr;
        ok = table;
        for (const Field &field : fields)
            ok = ok && !blobmsg_add_string(&buf, field.name, field.value);
        if (ok)
            blobmsg_close_table(&buf, table);
    }
};

int send_now(const Method &method, SmsRequest &message, Site site) {
    BusConnection bus(method.timeout_ms);
    if (!bus.open()) {
        log(Level::error, site, "Failed to connect to ubus");
        return -1;
    }
    uint32_t id;
    Send send = {&method, nullptr, nullptr, false, -1};
    int status = message.ok ? bus.lookup("sms", &id) : UBUS_STATUS_NO_MEMORY;
    if (status) {
        log(Level::error, site, "Failed to lookup id: %s", StatusText(status).c_str());
        return -1;
    }
    status = bus.invoke(id, method.name, message.head(), on_reply, &send);
    if (status)
        log(Level::error, site, "Failed to ubus invoke: %s", StatusText(status).c_str());
    return send.result;
}

struct Later {
    int timeout_ms = kLongestAsyncMs;
    Tavrik_SmsSendCb callback = nullptr;
    void *user = nullptr;
};

int send_later(const Method &method, SmsRequest &message, const Later &later, Site site) {
    if (tavrik_ubus_thread_init()) {
        log(Level::error, site, "ubus_thread init failed!");
        return -1;
    }
    auto *send = static_cast<Send *>(malloc(sizeof(Send)));
    AsyncRequest request(later.timeout_ms, {on_reply, on_end, send}, site);
    if (!send || !request) {
        log(Level::error, site, "Failed to malloc req");
        free(send);
        return -1;
    }
    *send = {&method, later.callback, later.user, false, -1};
    if (!request.open()) {
        log(Level::error, site, "Failed to connect to ubus");
        free(send);
        return -1;
    }
    uint32_t id;
    int status = message.ok ? request.lookup("sms", &id) : UBUS_STATUS_NO_MEMORY;
    if (status) {
        log(Level::error, site, "Failed to lookup id: %s", StatusText(status).c_str());
    } else {
        status = request.start(id, method.name, message.head());
        if (status)
            log(Level::error, site, "Failed to ubus invoke: %s", StatusText(status).c_str());
    }
    if (status)
        free(send);
    return status ? -1 : 0;
}

int send_message_core(SmsRequest &message, const Later &) {
    return send_now(kSendText, message, Site::here());
}

int send_async_message_core(SmsRequest &message, const Later &later) {
    return send_later(kSendText, message, later, Site::here());
}

int send_pdu_message_core(SmsRequest &message, const Later &) {
    return send_now(kSendPdu, message, Site::here());
}

int send_pdu_async_message_core(SmsRequest &message, const Later &later) {
    return send_later(kSendPdu, message, later, Site::here());
}

using Core = int (*)(SmsRequest &message, const Later &later);

// Checks and converts the text. The fields may be full, without a terminating zero.
int send_text(const SmsMessage *message, Core core, const Later &later = {}, Site site = Site::here()) {
    const size_t length = message ? strnlen(message->text, sizeof message->text) : 0;
    if (!message || !*message->number || !length || message->length != int32_t(length)) {
        log(Level::error, site, "Parameter input error");
        return -1;
    }
    int32_t ascii_count = 0;
    const bool ascii = is_ascii(message->text, message->length, &ascii_count);
    const int units = ascii ? message->length : message->length + 2 * ascii_count;
    const int most = ascii ? kMostAscii : kMostUnits;
    if (units > most) {
        log(Level::error, site, "The length of the input text message cannot exceed %d", most);
        return -1;
    }
    auto *body = static_cast<char *>(calloc(length * 4 + 1, 1));
    if (!body) {
        log(Level::error, site, "malloc failed");
        return -1;
    }
    int32_t body_length = 0;
    code_convert_utf8_to_unicodeStr(message->text, message->length, body, &body_length);
    char number[TAVRIK_SMS_NUMBER_SIZE + 1] = {};
    memcpy(number, message->number, sizeof message->number);
    int result;
    {
        SmsRequest request(number, body, ascii);
        result = core(request, later);
    }
    free(body);
    return result;
}

int send_pdu(const char *pdu, Core core, const Later &later = {}, Site site = Site::here()) {
    if (!pdu) {
        log(Level::error, site, "Parameter input error");
        return -1;
    }
    SmsRequest request(pdu);
    return core(request, later);
}

bool has_callback(Tavrik_SmsSendCb callback, Site site = Site::here()) {
    if (!callback)
        log(Level::error, site, "Parameter input error");
    return callback;
}

} // namespace

int Tavrik_SMS_SendMsg(const SmsMessage *message) {
    return send_text(message, send_message_core);
}

int Tavrik_SMS_SendMsg_Async(const SmsMessage *message) {
    return send_text(message, send_async_message_core);
}

int Tavrik_SMS_SendMsg_AsyncEx(const SmsMessage *message, int timeout_ms, Tavrik_SmsSendCb callback, void *user) {
    return has_callback(callback) ? send_text(message, send_async_message_core, {timeout_ms, callback, user}) : -1;
}

int Tavrik_SMS_SendPdu(const char *pdu) {
    return send_pdu(pdu, send_pdu_message_core);
}

int Tavrik_SMS_SendPdu_Async(const char *pdu) {
    return send_pdu(pdu, send_pdu_async_message_core);
}

int Tavrik_SMS_SendPdu_AsyncEx(const char *pdu, int timeout_ms, Tavrik_SmsSendCb callback, void *user) {
    return has_callback(callback) ? send_pdu(pdu, send_pdu_async_message_core, {timeout_ms, callback, user}) : -1;
}

// The private pointers of such requests are the application's: their results go to the SMS callback alone.

void sms_recv_send_msg_cb(ubus_request *, int, blob_attr *message) {
    Send send = {&kSendText, nullptr, nullptr, false, -1};
    send.take(message);
}

void sms_pdu_recv_send_msg_cb(ubus_request *, int, blob_attr *message) {
    Send send = {&kSendPdu, nullptr, nullptr, false, -1};
    send.take(message);
}

void complete_sms_async_cb(ubus_request *request, int) {
    if (!request)
        return;
    free(request->priv);
    free(request);
}

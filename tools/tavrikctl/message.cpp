#include "message.h"
#include "output.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace tavrikctl {
namespace {

// As its sender's clock showed it, with the distance from UTC.
std::string time_text(int64_t time, int zone) {
    const time_t local = time_t(time + zone * 60);
    std::tm fields = {};
    char text[64];
    gmtime_r(&local, &fields);
    std::string all(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields));
    if (!zone)
        return all + "Z";
    const int minutes = std::abs(zone);
    snprintf(text, sizeof text, "%c%02d:%02d", zone < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return all + text;
}

void put_time(Output &output, const char *key, const char *label, int64_t time, int zone) {
    if (time != TAVRIK_SMS_NO_TIME)
        output.field(key, label, time_text(time, zone));
}

void put_known(Output &output, const char *key, const char *label, int value) {
    if (value >= 0)
        output.field(key, label, value);
}

// 3GPP TS 23.040 clause 9.2.3.15
const char *outcome(int status) {
    return status < 0x20 ? "delivered" : status < 0x40 ? "still trying" : status < 0x60 ? "failed" : "given up";
}

} // namespace

bool decode(const char *pdu, Message &message) {
    message.detail = {};
    message.detail.size = sizeof message.detail;
    if (Tavrik_SMS_Decode(pdu, &message.detail) != 0)
        return false;
    message.text.assign(message.detail.text, size_t(message.detail.length));
    return true;
}

bool receive(const SmsMessage &record, Message &message) {
    char pdu[512];
    if (Tavrik_SMS_CurrentPdu(pdu, sizeof pdu) != 0 || !decode(pdu, message)) {
        Tavrik_SmsDetail &detail = message.detail = {};
        detail.type = TAVRIK_SMS_DELIVER;
        detail.time = TAVRIK_SMS_NO_TIME;
        detail.encoding = record.encoding;
        memcpy(detail.number, record.number, sizeof record.number);
        message.text.assign(record.text, std::min(size_t(std::max(record.length, 0)), sizeof record.text));
        return true;
    }
    char *text = nullptr;
    int32_t length = 0;
    if (Tavrik_SMS_Join(&message.detail, &text, &length) != 1)
        return false;
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    message.text.assign(text, size_t(length));
    return true;
}

void put(Output &output, const Message &message) {
    static const char *const kEncodings[] = {"7-bit", "8-bit", "UCS-2"};
    const Tavrik_SmsDetail &detail = message.detail;
    if (detail.type == TAVRIK_SMS_REPORT) {
        output.field("number", "to", detail.number);
        put_time(output, "time", "time", detail.discharge_time, detail.discharge_zone);
        output.field("message", "message", detail.message_reference);
        output.field("status", "status", detail.status);
        output.field("outcome", "outcome", outcome(detail.status));
        return;
    }
    output.field("number", "from", detail.number);
    put_time(output, "time", "time", detail.time, detail.zone);
    if (detail.total > 1)
        output.field("parts", "parts", detail.total);
    if (detail.encoding >= 0 && detail.encoding < 3)
        output.field("encoding", "encoding", kEncodings[detail.encoding]);
    output.field("text", "text", message.text);
}

void put_details(Output &output, const Message &message) {
    const Tavrik_SmsDetail &detail = message.detail;
    if (detail.type == TAVRIK_SMS_REPORT)
        return put_time(output, "sent", "sent", detail.time, detail.zone);
    if (detail.sequence) {
        output.field("part", "part", detail.sequence);
        output.field("reference", "reference", detail.reference);
    }
    put_known(output, "class", "class", detail.message_class);
    put_known(output, "protocol", "protocol", detail.protocol);
    put_known(output, "destination_port", "destination port", detail.destination_port);
    put_known(output, "source_port", "source port", detail.source_port);
}

} // namespace tavrikctl

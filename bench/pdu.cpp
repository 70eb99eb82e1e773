// Decoding of received messages against libgammu: PDUs of the usual kinds, whose texts both must agree on.
#include "bench.h"

#include "model/message.h"
#include "tavrik_sdk.h"

#include <cstdlib>
#include <cstring>
#include <gammu.h>

namespace {

using Pdus = std::vector<std::string>;

// 12 and 160 septets, UCS-2, each alone and as part of a longer message.
Pdus make_pdus() {
    std::string septets, units;
    for (int i = 0; i < 160; i++)
        septets += char('a' + i % 26);
    for (int i = 0; i < 70; i++)
        units += i % 3 ? "\u4f60" : "\u00e4";
    Pdus pdus;
    for (const std::string &text :
         {septets.substr(0, 12), septets, units, septets + septets.substr(0, 158), units + units})
        for (const std::string &pdu : tavrik::sim::deliver_pdus("+491723456789", text, 42))
            pdus.push_back(pdu);
    return pdus;
}

bool decode_base(const std::string &pdu, GSM_SMSMessage &message) {
    unsigned char octets[300];
    size_t end = 0;
    DecodeHexBin(octets, reinterpret_cast<const unsigned char *>(pdu.c_str()), int(pdu.size()));
    return GSM_DecodePDUFrame(GSM_GetGlobalDebug(), &message, octets, pdu.size() / 2, &end, TRUE) == ERR_NONE;
}

// Every one of them, by both.
bool agree(const Pdus &pdus) {
    bool same = true;
    for (const std::string &pdu : pdus) {
        SmsMessage *ours = creat_from_pdu(pdu.c_str());
        GSM_SMSMessage base = {};
        char text[2000] = "";
        same = same && decode_base(pdu, base) && EncodeUTF8(text, base.Text) + 1 && ours && *ours->text &&
               std::string(ours->text, size_t(ours->length)) == text;
        free(ours);
    }
    return same;
}

} // namespace

std::vector<bench::Row> bench::pdu_rows() {
    static const Pdus pdus = make_pdus();
    static const bool same = agree(pdus);
    const auto ours = [](int operations) {
        for (int i = 0; i < operations; i++) {
            SmsMessage *message = creat_from_pdu(pdus[size_t(i) % pdus.size()].c_str());
            if (!message || !message->length)
                return false;
            free(message);
        }
        return same;
    };
    const auto base = [](int operations) {
        static GSM_SMSMessage message;
        for (int i = 0; i < operations; i++)
            if (!decode_base(pdus[size_t(i) % pdus.size()], message))
                return false;
        return same;
    };
    return {{"pdu", "per second", 7000, ours, base}};
}

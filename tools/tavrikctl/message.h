// Received messages, as they are printed.
#pragma once

#include <string>
#include <tavrik_sdk.h>

namespace tavrikctl {

class Output;

struct Message {
    Tavrik_SmsDetail detail;
    std::string text; // of all parts
};

// All that a PDU says; false when it is none that can be received.
bool decode(const char *pdu, Message &message);
// The message that the callback on this thread is for, with the parts that came before; false while some are missing.
// A PDU that cannot be decoded gives what the callback's record has.
bool receive(const SmsMessage &record, Message &message);
// What everybody wants to know of it. An event's fields.
void put(Output &output, const Message &message);
// And the rest.
void put_details(Output &output, const Message &message);

} // namespace tavrikctl

// "*ECALLDATA: <number>[,<text>]", and the end of an eCall.
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <atomic>
#include <string.h>

namespace tavrik {
namespace {

constexpr int kEcallEvent = 3;
constexpr char kPrefix[] = "*ECALLDATA";

std::atomic<bool> g_reported{false}; // since the last disconnection

} // namespace

// Every report is an event, whatever stands behind the prefix.
int on_ecall_info_changed(char *line) {
    g_reported = true;
    char *cursor = strstr(line, kPrefix) + strlen(kPrefix);
    if (*cursor == ':')
        ++cursor;
    EcallEvent event = {};
    char *text = nullptr;
    at_tok_nextint(&cursor, &event.value);
    if (at_tok_hasmore(&cursor))
        at_tok_nextstr(&cursor, &text);
    event.text = text;
    deliver(kSlotEcall, kEcallEvent, &event);
    return 0;
}

void on_ecall_disconnected(const char *cause) {
    if (!g_reported.exchange(false))
        return;
    EcallEvent event = {-1, cause};
    deliver(kSlotEcall, kEcallEvent, &event);
}

} // namespace tavrik

// "+CPIN: <text>" and "+SIMCARD: <value>".
#include "indication/fields.h"
#include "indication/parsers.h"
#include "uim/state.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static_assert(sizeof(Tavrik_SimEvent) == 64 && offsetof(Tavrik_SimEvent, state) == 8 &&
                  offsetof(Tavrik_SimEvent, source) == 12 && offsetof(Tavrik_SimEvent, value) == 16 &&
                  offsetof(Tavrik_SimEvent, text) == 20,
              "layout that applications were built with");

int tavrik::on_simcard_changed(char *line) {
    constexpr int kSimEvent = 6;
    const bool pin = strstr(line, "+CPIN");
    Fields fields(line);
    const char *text = fields.rest();
    if (!text || !*text)
        return -1;
    Tavrik_SimEvent event = {};
    event.kind = kSimEvent;
    event.size = sizeof event;
    event.source = pin ? 1 : 2;
    event.value = TAVRIK_UNKNOWN_S32;
    snprintf(event.text, sizeof event.text, "%s", text);
    if (pin) {
        event.state = uim_state(text);
    } else {
        if (!fields.number(event.value))
            return -1;
        event.state = event.value ? TAVRIK_UIM_UNKNOWN : TAVRIK_UIM_ABSENT;
    }
    deliver(kSlotSim, kSimEvent, &event);
    return 0;
}

// Recognises an unsolicited result and hands it to its parser.
#include "core/log.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <string.h>

using namespace tavrik;

namespace {

struct Kind {
    const char *texts[3]; // one of them, anywhere in the line
    int (*parse)(char *line);
    const char *failure; // what is logged when the line cannot be parsed
};

// The first that fits decides. Cells and signal share the text of data calls, as customers' log filters know it.
constexpr Kind kKinds[] = {
    {{"+CMT:"}, on_new_sms, nullptr},
    {{"+CLCC", "+CALLDISCONNECT"}, on_voice_call_info_changed, "handler call info failed"},
    {{"+ZCONSTAT"}, on_datacall_changed, "handler data_call info failed"},
    {{"*ECALLDATA"}, on_ecall_info_changed, "handler ecall info failed"},
    {{"+CEREG", "+CGREG", "+CREG"}, on_network_changed, "handler nw info failed"},
    {{"+CPIN", "+SIMCARD"}, on_simcard_changed, "handler simcard info failed"},
    {{"+EEMGINFOSVC", "+EEMUMTSSVC", "+EEMLTESVC"}, on_cellinfo_changed, "handler data_call info failed"},
    {{"+CESQ"}, on_CESQinfo_changed, "handler data_call info failed"},
};

const Kind *kind_of(const char *line) {
    for (const Kind &kind : kKinds)
        for (const char *text : kind.texts)
            if (text && strstr(line, text))
                return &kind;
    return nullptr;
}

} // namespace

int on_at_indication_report(const char *line) {
    if (!line)
        return -1;
    char fields[512]; // parsers cut their line
    const size_t length = strnlen(line, sizeof fields - 1);
    memcpy(fields, line, length);
    fields[length] = 0;
    const Kind *kind = kind_of(fields);
    if (!kind || !kind->parse(fields))
        return 0;
    if (kind->failure)
        TAVRIK_LOG_ERROR("%s", kind->failure);
    return -1;
}

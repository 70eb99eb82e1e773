// "+CMT: [<alpha>],<length>", CR LF and the PDU: an incoming message.
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <stdlib.h>
#include <string.h>

int tavrik::on_new_sms(char *line) {
    const char *pdu = strstr(line, "\r\n");
    if (!pdu || !pdu[2])
        return -1;
    SmsMessage *message = creat_from_pdu(pdu + 2);
    if (!message)
        return -1;
    if (!deliver(kSlotSms, 0, message)) // otherwise it is the receiver's
        free(message);
    return 0;
}

// "+CMT: [<alpha>],<length>", CR LF and the PDU: an incoming message.
#include "core/log.h"
#include "core/sync.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <stdlib.h>
#include <string.h>

using namespace tavrik;

namespace {

// PDUs whose callbacks run, by thread: the newest of a thread comes first. No thread_local, for which the library would
// need more than libc at load time.
struct Current {
    const char *pdu;
    pthread_t thread;
    Current *next;
};

Mutex g_mutex;
Current *g_current;

class CurrentPdu {
  public:
    explicit CurrentPdu(const char *pdu) : current_{pdu, pthread_self(), nullptr} {
        Lock lock(g_mutex);
        current_.next = g_current;
        g_current = &current_;
    }
    ~CurrentPdu() {
        Lock lock(g_mutex);
        Current **link = &g_current;
        while (*link != &current_)
            link = &(*link)->next;
        *link = current_.next;
    }
    CurrentPdu(const CurrentPdu &) = delete;
    CurrentPdu &operator=(const CurrentPdu &) = delete;

  private:
    Current current_;
};

} // namespace

int tavrik::on_new_sms(char *line) {
    const char *pdu = strstr(line, "\r\n");
    if (!pdu || !pdu[2])
        return -1;
    SmsMessage *message = creat_from_pdu(pdu + 2);
    if (!message)
        return -1;
    const CurrentPdu current(pdu + 2);
    if (!deliver(kSlotSms, 0, message)) // otherwise it is the receiver's
        free(message);
    return 0;
}

int Tavrik_SMS_CurrentPdu(char *pdu, size_t size) {
    if (!pdu || !size) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    Lock lock(g_mutex);
    const Current *current = g_current;
    while (current && !pthread_equal(current->thread, pthread_self()))
        current = current->next;
    if (!current || strlen(current->pdu) >= size)
        return -1;
    strcpy(pdu, current->pdu);
    return 0;
}

// Starting and ending an eCall, its minimum set of data, and the application's callback for eCall events.
#include "core/at_command.h"
#include "core/log.h"
#include "core/shell.h"
#include "core/sigpipe.h"
#include "indication/listen.h"
#include "tavrik_sdk.h"
#include "ubus/fail_cause.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static_assert(sizeof(Tavrik_EcallReq) == 184 && offsetof(Tavrik_EcallReq, msd) == 4 &&
                  offsetof(Tavrik_EcallReq, call_type) == 144 && offsetof(Tavrik_EcallReq, auto_trigger) == 148 &&
                  offsetof(Tavrik_EcallReq, test_number) == 152,
              "layout that applications were built with");

using namespace tavrik;

namespace {

constexpr int kCommandMs = 3000;

int send(const char *command) {
    return AtCommand(kCommandMs).send("%s", command);
}

// The data as hexadecimal digits. Logs for the caller and is not `ok` when there is none, or more than a record holds.
struct Msd {
    explicit Msd(const Tavrik_EcallReq *request, Site site = Site::here())
        : ok(request && request->msd_len >= 0 && request->msd_len <= TAVRIK_ECALL_MSD_MAX) {
        if (!ok) {
            log(Level::error, site, "msd input error");
            return;
        }
        for (int i = 0; i < request->msd_len; ++i)
            snprintf(text + 2 * i, 3, "%02X", request->msd[i]);
    }
    int send() const { return AtCommand(kCommandMs).send("AT*ECALLMSD=\"%s\"", text); }

    const bool ok;
    char text[2 * TAVRIK_ECALL_MSD_MAX + 1] = {};
};

// A test call needs the eCall-only setting sent again, with the number behind it; the modem tells it over another
// channel than ours.
int start_test(const Tavrik_EcallReq &request, Site site = Site::here()) {
    constexpr char kAsk[] = "serial_atcmd at*ecallonly? | grep '*ECALLONLY' | awk -F'[, ]' '{print $2}'";
    constexpr int kAskMs = 3000;
    char setting[64];
    const int got = run_shell_for_first_line(kAsk, setting, sizeof setting, kAskMs);
    if (got < 0) { // promised: a process that cannot start a program does not go on
        const SigpipeBlocked blocked;
        perror("popen");
        exit(1);
    }
    setting[strcspn(setting, "\r")] = 0;
    if (got)
        log(Level::error, site, "Model: %s", LogText(setting).c_str());
    else
        log(Level::error, site, "No model information found.");
    if (AtCommand(kCommandMs)
            .send("AT*ECALLONLY=%s,%.*s", setting, int(sizeof request.test_number), request.test_number)) {
        log(Level::error, site, " test ecallonly failed");
        return -1;
    }
    if (send("AT+CECALL=0")) {
        log(Level::error, site, "ecall test start failed");
        return -1;
    }
    return 0;
}

} // namespace

int Tavrik_Ecall_Init(Tavrik_EcallCb callback) {
    return tavrik::listen_for_calls(TAVRIK_IND_ECALL, reinterpret_cast<Tavrik_IndicationCb>(callback),
                                    "ecall indication register failed");
}

void Tavrik_Ecall_Deinit(void) {
    if (tavrik_indication_ecallderegister())
        TAVRIK_LOG_ERROR("Ecall indication deregister failed");
}

int Tavrik_Ecall_Start(const Tavrik_EcallReq *request) {
    const Msd msd(request);
    if (!msd.ok)
        return -1;
    TAVRIK_LOG_ERROR("%d:%s", request->msd_len, msd.text);
    if (msd.send()) {
        TAVRIK_LOG_ERROR("ecall msd set failed");
        return -1;
    }
    if (request->call_type == TAVRIK_ECALL_TEST)
        return start_test(*request);
    const bool manual = !request->auto_trigger;
    if (send(manual ? "AT+CECALL=2" : "AT+CECALL=3")) {
        TAVRIK_LOG_ERROR("ecall %s start failed", manual ? "manually" : "automatically");
        return -1;
    }
    return 0;
}

int Tavrik_Ecall_End(void) {
    return send("AT+CECALL=5");
}

int Tavrik_Ecall_UpdateMSD(const Tavrik_EcallReq *request) {
    const Msd msd(request);
    return msd.ok ? msd.send() : -1;
}

int Tavrik_Ecall_PushMSD(void) {
    TAVRIK_LOG_INFO("call push");
    return send("AT*ECALLPUSH");
}

int Tavrik_Ecall_DeregisterNetwork(void) {
    TAVRIK_LOG_INFO("deregister from network");
    return send("AT*ECALLREG=0");
}

int Tavrik_Ecall_RegisterNetwork(void) {
    TAVRIK_LOG_INFO("register in network");
    return send("AT*ECALLREG=1");
}

int Tavrik_GetEcallFailCause(int *cause, char *text) {
    if (!cause)
        return -1;
    const FailCause asked;
    if (asked.result())
        return asked.result();
    const RilReply reply(asked.message());
    if (!answered(reply, kLastFailCause))
        return 0;
    if (FailCause::in(reply))
        FailCause::tell(reply, cause, text);
    else
        TAVRIK_LOG_ERROR("no response data");
    return 0;
}

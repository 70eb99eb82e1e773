// The modem's eCall settings.
#include "core/at_command.h"
#include "core/log.h"
#include "tavrik_sdk.h"

#include <stddef.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr int kCommandMs = 3000;

#define OFFSET(name) offsetof(Tavrik_EcallConfig, name)
static_assert(sizeof(Tavrik_EcallConfig) == 92 && OFFSET(ecallonly_valid) == 0 && OFFSET(ecallonly) == 1 &&
                  OFFSET(mode_valid) == 2 && OFFSET(mode) == 4 && OFFSET(t2_valid) == 8 && OFFSET(t2) == 12 &&
                  OFFSET(t5_valid) == 16 && OFFSET(t5) == 18 && OFFSET(t6_valid) == 20 && OFFSET(t6) == 22 &&
                  OFFSET(t7_valid) == 24 && OFFSET(t7) == 26 && OFFSET(t9_valid) == 28 && OFFSET(t9) == 32 &&
                  OFFSET(t10_valid) == 36 && OFFSET(t10) == 40 && OFFSET(dial_valid) == 44 && OFFSET(dial) == 48 &&
                  OFFSET(redialcnt_valid) == 52 && OFFSET(redialcnt) == 56 && OFFSET(smsmsdcnt_valid) == 60 &&
                  OFFSET(smsmsdcnt) == 64 && OFFSET(reserved) == 68 && OFFSET(redialtmr_valid) == 76 &&
                  OFFSET(redialtmr) == 78 && OFFSET(sms_valid) == 80 && OFFSET(sms) == 82 &&
                  OFFSET(smsnum_valid) == 84 && OFFSET(smsnum) == 88,
              "layout that applications were built with");

struct Command {
    const char *text;
    const char *success, *failure; // in the log
};

// In the order in which they are sent.
const struct {
    uint8_t flag, value, size; // where they are in the record
    Command command;           // the value goes behind it, unless
    Command otherwise;         // there is another one for all values but 1
} kSettings[] = {
#define SETTING(name) OFFSET(name##_valid), OFFSET(name), sizeof(Tavrik_EcallConfig::name)
    {SETTING(ecallonly),
     {"AT*ECALLONLY=1", "ecallonly success", "ecallonly failed"},
     {"AT*ECALLONLY=0", " not ecallonly success", "not ecallonly failed"}},
    {SETTING(mode),
     {"AT*ECALLMODE=\"ERA\"", "set ERA mode success", "set ERA mode failed"},
     {"AT*ECALLMODE=\"EU\"", "set EU mode success", "set EU mode failed"}},
    {SETTING(t2), {"AT*ECALLTIMER=cleardown,", "set T2 success", "set T2 failed"}, {}},
    {SETTING(t5), {"AT*ECALLDATA=5,1,", "set T5 success", "set T5 failed"}, {}},
    {SETTING(t6), {"AT*ECALLDATA=5,2,", "set T6 success", "set T6 failed"}, {}},
    {SETTING(t7), {"AT*ECALLDATA=5,3,", "set T7 success", "set T7 failed"}, {}},
    {SETTING(t9), {"AT*ECALLTIMER=callback,", "set T9 success", "set T9 failed"}, {}},
    {SETTING(t10), {"AT*ECALLTIMER=dereg,", "set T10 success", "set T10 failed"}, {}},
    {SETTING(redialcnt), {"AT*ECALLTIMER=redialcnt,", "set redail number success", "set redail number failed"}, {}},
    {SETTING(smsmsdcnt),
     {"AT*ECALLTIMER=smsmsdcnt,", "set sms resend number success", "set sms resend number failed"},
     {}},
    {SETTING(redialtmr), {"AT*ECALLTIMER=redialtmr,", "set redail timer success", "set redail timer failed"}, {}},
    {SETTING(sms), {"AT*ECALLTIMER=sms,", "set sms resend timer success", "set sms resend timer failed"}, {}},
    {SETTING(dial), {"AT*ECALLTIMER=dial,", "set dail set up timer success", "set dail set up timer failed"}, {}},
    {SETTING(smsnum),
     {"AT*ECALLSMSNUM=", "set SMS number for send MSD success", "set SMS number for send MSD failed"},
     {}},
#undef SETTING
};

uint32_t number_at(const char *place, size_t size) {
    uint8_t byte;
    uint16_t half;
    uint32_t word;
    return size == sizeof byte   ? (memcpy(&byte, place, size), byte)
           : size == sizeof half ? (memcpy(&half, place, size), half)
                                 : (memcpy(&word, place, size), word);
}

} // namespace

void Tavrik_Ecall_Set_Config_Info(Tavrik_EcallConfig config) {
    const char *record = reinterpret_cast<const char *>(&config);
    for (const auto &setting : kSettings) {
        if (record[setting.flag] != 1)
            continue;
        const uint32_t value = number_at(record + setting.value, setting.size);
        const bool choice = setting.otherwise.text;
        const Command &command = choice && value != 1 ? setting.otherwise : setting.command;
        AtCommand at(kCommandMs);
        if (!(choice ? at.send("%s", command.text) : at.send("%s%u", command.text, unsigned(value))))
            TAVRIK_LOG_INFO("%s", command.success);
        else if (choice)
            TAVRIK_LOG_ERROR("%s", command.failure);
        else
            TAVRIK_LOG_INFO("%s", command.failure);
    }
}

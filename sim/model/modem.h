#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tavrik::sim {

struct Call {
    int32_t id = 1;
    int32_t state = 0; // as +CLCC and the radio interface layer count it
    bool incoming = false;
    std::string number;
    uint64_t serial = 0; // of one that has come about by itself: ids are used again
};

// A packet data context as it was defined.
struct PdpContext {
    int32_t cid = 1;
    std::string type = "IP";
    std::string apn;
};

// Everything that a modem knows. A new one is as it leaves the factory.
struct ModemState {
    std::string manufacturer = "Tavrik";
    std::string model = "TL100";
    std::string revision = "TL100-1.0.0";
    std::string imei = "490154203237518";
    int32_t mode = 1;  // functionality: 0 minimum, 1 full, 4 radio off, 5 card off
    bool echo = false; // commands come back in front of their replies
    int32_t cmee = 1;  // errors as ERROR, numbers, words

    // The card.
    std::string sim = "READY"; // as +CPIN tells it
    int32_t sim_error = 0;     // questions to the card fail with this +CME ERROR
    std::string iccid = "89882010000000000014";
    std::string imsi = "001010123456789";
    std::string number = "+12025550123";
    std::string number_name = "Own";
    int32_t sim_status_length = 280; // of the reply to the RIL request

    // The network: settings of the reports, states as in 3GPP TS 27.007, and the serving cell.
    int32_t creg_n = 2, cgreg_n = 2, cereg_n = 2, cireg_n = 0;
    int32_t creg = 1, cgreg = 1, cereg = 1, ims = 1;
    bool attached = true;
    int32_t act = 7;
    std::string mcc = "001", mnc = "01";
    int32_t area = 0x2A1C, cell = 0x1D4E5F6;
    int32_t arfcn = 1300, band = 3, bandwidth = 20, phys_id = 22;
    int32_t rxlev = 99, ber = 99, rscp = 255, ecno = 255, rsrq = 25, rsrp = 60;
    int32_t sinr = 18, cqi = 11;

    // Settings of the radio.
    int32_t band_mode = 15;
    std::string bands = "78,147,482,134742231"; // as the modem lists them behind the mode
    std::string band_last = "0";
    std::string cell_lock; // "ACT,ARFCN,CELL" of a cell that the modem was told to stay on
    bool reject_report = false;
    std::string reject_causes; // "A,B,C;…"
    int32_t powerind = 0;

    std::vector<PdpContext> pdp; // packet data contexts that are defined
    std::string contexts;        // those that are up, "1,5,…"
    bool link_up = true;         // the link of one that goes up comes up with it

    // Calls. What the other side does comes so many ms later, or never with a negative number.
    std::vector<Call> calls;
    uint64_t last_serial = 0;
    int32_t alert_ms = 1000, answer_ms = 3000;
    int32_t fail_cause = 0; // of the last one
    std::string dtmf;       // tones sent

    // eCall: where it is, as *ECALLDATA tells it, and the centre's side of it.
    int32_t ecall = 0;
    uint64_t ecall_serial = 0; // of its call
    uint64_t ecall_step = 0;   // changes with each turn it takes, so that timers of the one before are void
    int32_t ecall_start_ms = 1000, ecall_ack_ms = 2000;
    std::string ecall_msd;
    int32_t ecall_only = 0;
    std::string ecall_number; // of a test call
    std::string ecall_mode = "EU";
    // As they were set; the timers that act are seconds here.
    std::string ecall_t2 = "3600", ecall_t5 = "5", ecall_t6 = "5", ecall_t7 = "20", ecall_t9 = "3600",
                ecall_t10 = "43200", ecall_dial = "60", ecall_redialcnt = "10", ecall_redialtmr = "30",
                ecall_smsmsdcnt = "10", ecall_sms = "30", ecall_smsnum = "112";

    // The firmware upgrade: the word that tells where it is, and how one goes that is started.
    std::string ota = "not start";
    int32_t ota_ms = 3000;
    std::string ota_end = "success";
    int32_t ota_reply_ms = -1;
    uint64_t ota_serial = 0; // of the last one, so that timers of those before are void
};

// Contexts that can be defined have the numbers from 1 to this one.
inline constexpr int32_t last_pdp_cid = 16;
// NULL when it is not defined.
const PdpContext *find_pdp(const ModemState &state, int32_t cid);
// A list of contexts, taken apart; with one more at its end, or one less.
std::vector<std::string> contexts_in(const std::string &contexts);
std::string with_context(const std::string &contexts, const std::string &name, bool up);

// The modem behind all services: its state, read and changed by field name, and the lines that it sends unasked. It
// does no I/O of its own.
class Modem {
  public:
    using UnsolicitedLine = std::function<void(std::string_view)>;

    ModemState &state() { return state_; }
    const ModemState &state() const { return state_; }

    static bool has(std::string_view field);
    // A field, or one of the views on them that only AT replies use (model/reports.h).
    static bool shows(std::string_view name);
    // The fields as a JSON object.
    nlohmann::json get() const;
    // A field or view as an AT reply shows it.
    std::string text(std::string_view name) const;
    // Sets the given fields, all or none, and reports what changed. Throws std::invalid_argument for an unknown field
    // or a bad value.
    void set(const nlohmann::json &fields);
    // One field from the text that an AT command carried; report() is the caller's.
    void set_text(std::string_view field, const std::string &text);
    // As new, with the given fields; nothing is reported.
    void reset();
    void reset(const nlohmann::json &fields);
    // What commands do beyond setting fields (model/actions.cpp); false when the modem cannot, and then nothing
    // changes.
    static bool knows(std::string_view action);
    bool act(std::string_view action, const std::string &argument = "");
    // Sends the lines that report how the modem differs from what it was before.
    void report(const ModemState &before) const;

    // Called when something changed, before anybody hears of it.
    std::function<void()> on_change;
    // Has something happen later, on the modem's clock. Without one it never happens.
    std::function<void(int64_t ms, std::function<void()>)> plan;
    // Who hears the unsolicited lines, given without their line ends.
    UnsolicitedLine on_unsolicited;
    void unsolicited(std::string_view line) const {
        if (on_unsolicited)
            on_unsolicited(line);
    }

  private:
    ModemState state_;
};

} // namespace tavrik::sim

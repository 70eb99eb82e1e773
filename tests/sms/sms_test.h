// Cases as text, "INPUT=OUTCOME", and what to make of them.
#pragma once

#include "support/sim.h"

#include <functional>
#include <sstream>

using namespace std::string_literals;

inline const std::string kCentre = "07919471016705F0", kNumber = "+49172345678";

inline void check(const std::function<std::string(const std::string &)> &run, const std::vector<std::string> &cases) {
    for (const std::string &c : cases) {
        const size_t middle = c.find('=');
        EXPECT_EQ(run(c.substr(0, middle)), c.substr(middle + 1)) << c;
    }
}

// "CODING[h] USER-DATA [SENDER [TIME]]", "h" with a header, is a message from kNumber without a time.
inline std::string pdu_of(const std::string &text) {
    std::string coding, data, sender = "0B919471325476F8", time = "FFFFFFFFFFFFFF";
    std::istringstream(text) >> coding >> data >> sender >> time;
    const char *const first_octet = coding.size() > 2 ? "44" : "04";
    if (data.empty() || coding.size() > 3)
        return text; // a whole one
    return kCentre + first_octet + sender + "00" + coding.substr(0, 2) + time + data;
}

// The result of the call, and what it logs, as sim::log_of() tells it.
template <class Call>
std::string outcome(Call call) {
    const int mode = Tavrik_Get_Log_Mode();
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    int result = 0;
    const std::string log = sim::log_of([&] { result = call(); });
    Tavrik_Switch_Log_Mode(mode);
    return std::to_string(result) + " " + log;
}

// Those of the numbers that differ from `absent`, by name, the sender if it is another than kNumber, and the text.
inline std::string line(const char *names, const std::vector<int64_t> &numbers, const std::vector<int64_t> &absent,
                        const std::string &sender, const std::string &text) {
    std::istringstream each(names);
    std::string line, name;
    for (size_t i = 0; each >> name; ++i)
        if (numbers[i] != absent[i])
            line += name + std::to_string(numbers[i]) + " ";
    line += sender == kNumber ? "" : "from " + sender + " ";
    for (const char c : text)
        line += c ? std::string(1, c) : "<0>";
    return line;
}

inline std::string describe(const SmsMessage &m) {
    const auto shown = std::min(size_t(m.length), sizeof m.text);
    return line("encoding concat ref seq total result cut",
                {m.encoding, m.concat, m.concat_ref, m.concat_seq, m.concat_total, m.result, m.length - int(shown)},
                std::vector<int64_t>(7), {m.number, strnlen(m.number, sizeof m.number)}, {m.text, shown});
}

inline Tavrik_SmsDetail nothing() {
    Tavrik_SmsDetail detail = {};
    detail.size = sizeof detail;
    detail.type = TAVRIK_SMS_DELIVER;
    detail.time = detail.discharge_time = TAVRIK_SMS_NO_TIME;
    detail.message_class = detail.source_port = detail.destination_port = detail.reference = -1;
    detail.message_reference = detail.status = -1;
    return detail;
}

inline std::string describe(const Tavrik_SmsDetail &detail) {
    const auto numbers = [](const Tavrik_SmsDetail &d) -> std::vector<int64_t> {
        return {d.type,       d.time,          d.zone,          d.discharge_time,    d.discharge_zone,
                d.encoding,   d.message_class, d.protocol,      d.source_port,       d.destination_port,
                d.reference,  d.sequence,      d.total,         d.message_reference, d.status,
                d.first_half, d.last_half,     d.text[d.length]};
    };
    return line("type time zone discharged at encoding class protocol source destination ref seq total message status "
                "first last unterminated",
                numbers(detail), numbers(nothing()), detail.number, {detail.text, size_t(detail.length)});
}

#include "level.h"

#include "output.h"

namespace tavrikctl {
namespace {

// A value stands for a step of the level and is shown as its lower end, first + value * step; 0 is all below 1.
const struct {
    const char *key, *label, *member, *unit;
    double first, step;
    int most;
} kScales[] = {
    {"rxlev", "RXLEV", "rxlev_dbm", "dBm", -111, 1, 63}, {"rscp", "RSCP", "rscp_dbm", "dBm", -121, 1, 96},
    {"ecno", "Ec/No", "ecno_db", "dB", -24.5, 0.5, 49},  {"rsrp", "RSRP", "rsrp_dbm", "dBm", -141, 1, 97},
    {"rsrq", "RSRQ", "rsrq_db", "dB", -20, 0.5, 34},
};

std::string bar_of(int raw, int most) {
    constexpr int kWidth = 20;
    const int filled = (raw * kWidth + most / 2) / most;
    return "  " + std::string(size_t(filled), '#') + std::string(size_t(kWidth - filled), '.');
}

} // namespace

void put_index(Output &output, const char *key, const char *label, int raw, int most, bool bar) {
    if (raw >= 0 && raw <= most)
        output.field(key, label, raw, bar ? bar_of(raw, most) : "");
}

void put_level(Output &output, Level level, int raw, bool bar) {
    const auto &scale = kScales[int(level)];
    if (raw < 0 || raw > scale.most)
        return;
    const double value = scale.first + raw * scale.step;
    char text[48];
    if (raw == 0)
        snprintf(text, sizeof text, " (below %g %s)", value + scale.step, scale.unit);
    else
        snprintf(text, sizeof text, " (%g %s)", value, scale.unit);
    output.field(scale.key, scale.label, raw, text + (bar ? bar_of(raw, scale.most) : ""));
    // A whole number where the step is one.
    output.member(scale.member, scale.step == 1 ? nlohmann::ordered_json(int(value)) : nlohmann::ordered_json(value));
}

} // namespace tavrikctl

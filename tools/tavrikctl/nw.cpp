// tavrikctl nw: registration, signal and settings of the radio.
#include "channel.h"
#include "command.h"
#include "level.h"
#include "names.h"
#include "output.h"

#include <climits>
#include <tavrik_sdk.h>
#include <unistd.h>

namespace tavrikctl {
namespace {

struct Radio : Channel {
    Radio() : Channel("nw") {}
};

bool written(Output &output) {
    return output.end() || fail("nw: cannot write it");
}

// Does what a verb without a value to print is for.
bool obeyed(int result, const char *verb) {
    return result == 0 || fail(std::string("nw ") + verb + ": the modem refuses it");
}

bool reg(const Arguments &, Output &output) {
    const Radio radio;
    int state, circuits, packets;
    if (!radio)
        return false;
    if (Tavrik_NW_GetRegStatus(&state, &circuits, &packets) != 0)
        return fail("nw reg: the modem does not tell it");
    output.field("registration", "Registration", registration_name(state));
    if (circuits != 0)
        output.field("cs", "Circuit-switched", circuits == 1 ? "registered" : "not registered");
    output.field("ps", "Packet-switched", packets == 1 ? "attached" : "detached");
    return written(output);
}

void put(Output &output, const Tavrik_Signal &signal, int technology, bool bars) {
    output.field("technology", "Technology", technology_name(technology));
    if (technology == TAVRIK_NW_GSM)
        put_level(output, Level::rxlev, signal.rxlev, bars);
    if (technology == TAVRIK_NW_WCDMA)
        put_level(output, Level::rscp, signal.rxlev, bars);
    if (technology != TAVRIK_NW_LTE)
        return;
    put_level(output, Level::rsrp, signal.rsrp, bars);
    put_level(output, Level::rsrq, signal.rsrq, bars);
    put_index(output, "cqi", "CQI", signal.cqi, 15, bars);
    output.field("sinr", "SINR", signal.sinr);
}

bool signal(const Arguments &arguments, Output &output) {
    const Radio radio;
    if (!radio)
        return false;
    const bool watch = arguments.has("--watch");
    if (watch)
        output.redraw();
    for (;;) {
        Tavrik_Signal signal = {};
        int technology = 0;
        if (Tavrik_NW_GetSignal(&signal, &technology) != 0 && !watch) // who watches looks for a place with service
            return fail("nw signal: no service, or the modem does not tell it");
        put(output, signal, technology, watch);
        if (!written(output))
            return false;
        if (!watch)
            return true;
        sleep(1);
    }
}

bool band(const Arguments &arguments, Output &output) {
    const Radio radio;
    if (!radio)
        return false;
    if (arguments.has("BAND")) {
        uint32_t band[5];
        for (size_t i = 0; i < 5; ++i)
            band[i] = uint32_t(arguments.number("BAND", i));
        if (!obeyed(Tavrik_NW_SetRfBandInfo(band[0], band[1], band[2], band[3], band[4]), "band"))
            return false;
    }
    Tavrik_RfBandInfo bands;
    if (Tavrik_NW_GetRfBandInfo(&bands) != 0)
        return fail("nw band: the modem does not tell the bands");
    std::vector<std::string> texts;
    for (uint32_t value : bands.band)
        texts.push_back(std::to_string(value));
    output.lines("band", texts);
    output.member("band", bands.band);
    return written(output);
}

bool mode(const Arguments &arguments, Output &output) {
    const Radio radio;
    if (!radio)
        return false;
    int mode;
    if (arguments.has("MODE")) {
        mode = int(arguments.number("MODE"));
        if (!obeyed(Tavrik_NW_SetPreferredMode(mode), "mode"))
            return false;
    } else if (Tavrik_NW_GetPreferredMode(&mode) != 0) {
        return fail("nw mode: the modem does not tell it");
    }
    output.field("mode", "Preferred mode", mode);
    return written(output);
}

bool lock(const Arguments &arguments, Output &) {
    const Radio radio;
    return radio && obeyed(Tavrik_NW_CellLock(int(arguments.number("TECHNOLOGY")), int(arguments.number("CHANNEL")),
                                              int(arguments.number("CELL"))),
                           "lock");
}

bool unlock(const Arguments &, Output &) {
    const Radio radio;
    return radio && obeyed(Tavrik_NW_ResetCellLock(), "unlock");
}

bool volte(const Arguments &, Output &output) {
    const Radio radio;
    int status;
    if (!radio)
        return false;
    if (Tavrik_NW_GetVolteStatus(&status) != 0)
        return fail("nw volte: the modem does not tell it");
    output.field("volte", "VoLTE", status == 1 ? "registered" : "not registered");
    return written(output);
}

bool rejects(const Arguments &arguments, Output &output) {
    const Radio radio;
    if (!radio)
        return false;
    if (arguments.has("NOTES"))
        return obeyed(Tavrik_NW_RejectCauseSwitch(arguments.text("NOTES") == "on"), "rejects");
    Tavrik_RejectCause causes[TAVRIK_REJECT_CAUSES];
    const int count = Tavrik_NW_QueryRejectCause(causes);
    if (count < 0)
        return fail("nw rejects: the modem does not tell them");
    std::vector<std::string> texts;
    nlohmann::ordered_json fields = nlohmann::ordered_json::array();
    for (int i = 0; i < count; ++i) {
        const int32_t(&field)[3] = causes[i].field;
        texts.push_back(std::to_string(field[0]) + " " + std::to_string(field[1]) + " " + std::to_string(field[2]));
        fields.push_back(field);
    }
    output.lines("rejects", texts);
    output.member("rejects", fields);
    return written(output);
}

bool powerind(const Arguments &arguments, Output &) {
    const Radio radio;
    return radio && obeyed(Tavrik_Set_POWERIND(arguments.text("REPORT") == "1"), "powerind");
}

} // namespace

Family nw_family() {
    const Parameter band_numbers =
        optional_number("BAND", "The five numbers to set, of the modem's own numbering: all five", 0, UINT32_MAX, 5);
    return {"nw",
            "Network",
            {{"nw", "reg", "Print whether the module is registered and attached", {}, reg},
             {"nw",
              "signal",
              "Print the signal of the serving cell",
              {switch_option("--watch", "Print it anew each second, with bars, until interrupted")},
              signal},
             {"nw", "band", "Print the bands in use, or set them", {band_numbers}, band},
             {"nw",
              "mode",
              "Print the preferred network mode, or set it",
              {optional_number("MODE", "The new mode", 1, 5)},
              mode},
             {"nw",
              "lock",
              "Bind the module to one cell",
              {number("TECHNOLOGY", "Access technology, as the modem counts it", 0, 3),
               number("CHANNEL", "Channel number", 1, INT_MAX), number("CELL", "Physical cell id", 1, INT_MAX)},
              lock},
             {"nw", "unlock", "End the binding to a cell", {}, unlock},
             {"nw", "volte", "Print whether the module is registered for VoLTE", {}, volte},
             {"nw",
              "rejects",
              "Print the reject causes that the modem noted, or switch its notes",
              {optional_word("NOTES", "Whether it notes them", {"on", "off"})},
              rejects},
             {"nw",
              "powerind",
              "Switch the modem's report of its power indication",
              {chosen_word("REPORT", "Whether it reports", {"0", "1"})},
              powerind}}};
}

} // namespace tavrikctl

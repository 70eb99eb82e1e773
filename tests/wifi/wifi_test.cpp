// The access points: what is written (read back by uci's own program), what restarts, what is read of any package.
#include <chrono>
#include <climits>
#include <csignal>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "support/sim.h"

namespace {

using sim::log_of, sim::recorded;
using Texts = std::vector<std::string>;

const std::string file = "/etc/config/wireless", service = "/etc/init.d/mwlan";

class WiFi : public testing::Test {
  protected:
    WiFi() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~WiFi() override { sim::call("reset"); }
};

std::string output_of(const std::string &command) {
    FILE *pipe = popen(command.c_str(), "re");
    std::string text;
    for (int c; (c = fgetc(pipe)) != EOF;)
        text += char(c);
    pclose(pipe);
    return text;
}

std::string bytes_of(const std::string &path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// What is staged for the package is a part of it.
std::string package_bytes() {
    return bytes_of(file) + bytes_of("/tmp/.uci/wireless");
}

// The package as uci's program tells it: "SECTION.OPTION" and its value in quotes.
std::map<std::string, std::string> options() {
    std::map<std::string, std::string> all;
    std::istringstream text(output_of("uci show wireless"));
    for (std::string line; std::getline(text, line);)
        all[line.substr(9, line.find('=') - 9)] = line.substr(line.find('=') + 1);
    return all;
}

Texts restarted(size_t times) {
    return Texts(times, "mwlan restart");
}
// What a function logged when it logged one line.
std::string line(const std::string &function, const std::string &text) {
    return text.empty() ? "" : function + ": " + text + "\n";
}

// A package of these sections alone, "NAME: LINE; LINE…", as somebody may have written it.
void put(const Texts &sections) {
    std::string text;
    for (const std::string &section : sections) {
        const size_t end = section.find(':');
        const std::string name = section.substr(0, end);
        text +=
            "\nconfig wifi-" + std::string(name.find("_if") == name.npos ? "device" : "iface") + " '" + name + "'\n";
        std::istringstream lines(section.substr(end + 1));
        for (std::string option; std::getline(lines >> std::ws, option, ';');)
            text += "\t" + option + "\n";
    }
    std::ofstream(file) << text;
}

// One call of a setter: what it changes, and what it logs.
struct Set {
    std::function<int()> run;
    Texts changes; // "SECTION.OPTION='VALUE'", or "SECTION.OPTION" that is gone; none: -1
    std::string log = "";
};

void check(const char *function, const std::vector<Set> &calls) {
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(function + (", call " + std::to_string(i)));
        const bool good = !calls[i].changes.empty();
        auto wanted = good ? options() : std::map<std::string, std::string>();
        for (const std::string &change : calls[i].changes)
            if (const size_t at = change.find('='); at == change.npos)
                wanted.erase(change);
            else
                wanted[change.substr(0, at)] = change.substr(at + 1);
        const std::string bytes = package_bytes();
        EXPECT_EQ(log_of([&] { EXPECT_EQ(calls[i].run(), good ? 0 : -1); }), line(function, calls[i].log));
        if (good) {
            EXPECT_EQ(options(), wanted);
        } else {
            EXPECT_EQ(package_bytes(), bytes);
        }
        EXPECT_EQ(recorded("program"), restarted(good));
    }
}

TEST_F(WiFi, SetsTheName) {
    const auto ssid = [](std::string text, int band = 0) {
        return [text, band] { return Tavrik_Set_SSID(text.c_str(), 77, band); };
    };
    const std::string name = "AP0_2G_if.ssid=", longest(32, 's');
    std::vector<Set> calls = {
        {ssid("One"), {name + "'One'"}},
        {ssid("One"), {name + "'One'"}}, // once more
        {ssid("Five", 1), {"AP0_5G_if.ssid='Five'"}},
        {ssid(longest), {name + "'" + longest + "'"}},
        {ssid(longest + "s"), {}, "the ssid length more than 32bit"},
        {ssid(longest + "s", 2), {}, "the ssid length more than 32bit"},
        {ssid("It's \"$(reboot)\" `x`; # \\n%s"), {name + "'It'\\''s \"$(reboot)\" `x`; # \\n%s'"}},
        {ssid(" \x7F\x80\xFF caf\xC3\xA9 "), {name + "' \x7F\x80\xFF caf\xC3\xA9 '"}},
        {ssid(""), {"AP0_2G_if.ssid"}},
        {ssid("Back"), {name + "'Back'"}},
        {ssid("x", 2), {}, "Parameter input error"},
        {ssid("x", -1), {}, "Parameter input error"},
        {[] { return Tavrik_Set_SSID(nullptr, 0, 0); }, {}, "Parameter input error"},
    };
    for (char byte = 1; byte < 0x20; ++byte)
        calls.push_back({ssid(std::string("a") + byte), {}, "set value is faild"});
    check("Tavrik_Set_SSID", calls);
    char text[TAVRIK_WIFI_SSID_SIZE] = "";
    Tavrik_Get_SSID(text, 77, 0);
    EXPECT_STREQ(text, "Back");
}

TEST_F(WiFi, SetsFlags) {
    const struct {
        const char *function, *option;
        int (*set)(int, int, int);
        int (*get)(int *, int, int);
    } flags[] = {{"Tavrik_Set_Bcast", "hidden", Tavrik_Set_Bcast, Tavrik_Get_Bcast},
                 {"Tavrik_Set_Isolate", "isolate", Tavrik_Set_Isolate, Tavrik_Get_Isolate}};
    for (const auto &flag : flags) {
        const auto set = [&](int value, int band) { return [=] { return flag.set(value, 2, band); }; };
        const std::string slow = std::string("AP0_2G_if.") + flag.option,
                          fast = std::string("AP0_5G_if.") + flag.option;
        std::vector<Set> calls = {{set(1, 0), {slow + "='1'"}},
                                  {set(0, 0), {slow + "='0'"}},
                                  {set(1, 1), {fast + "='1'"}},
                                  {set(1, 2), {}, "Parameter input error"}};
        for (const int value : {2, -1, 256, INT_MIN, INT_MAX})
            for (const int band : {0, 2})
                calls.push_back({set(value, band), {}, "please input 0 or 1"});
        check(flag.function, calls);
        int slow_value = 7, fast_value = 7;
        EXPECT_EQ(flag.get(&slow_value, 0, 0) | flag.get(&fast_value, 2, 1), 0);
        EXPECT_EQ(slow_value, 0);
        EXPECT_EQ(fast_value, 1);
    }
}

TEST_F(WiFi, SetsTheNetworkMode) {
    const std::map<int, const char *> words[] = {{{2, "11g"}, {3, "11bg"}, {4, "11ng"}},
                                                 {{5, "11a"}, {6, "11na"}, {7, "11ac"}}};
    for (const int band : {0, 1})
        for (const int mode : {INT_MIN, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, INT_MAX}) {
            const auto word = words[band].find(mode);
            const bool good = word != words[band].end();
            const std::string option = band ? "AP0_5G.hwmode='" : "AP0_2G.hwmode='";
            check("Tavrik_Set_Netmode", {{[=] { return Tavrik_Set_Netmode(mode, 0, band); },
                                          good ? Texts{option + word->second + "'"} : Texts()}});
            int now = 0;
            EXPECT_EQ(Tavrik_Get_Netmode(&now, 0, band), 0);
            EXPECT_EQ(now == mode, good);
        }
    check("Tavrik_Set_Netmode", {{[] { return Tavrik_Set_Netmode(2, 0, 2); }, {}, "Parameter input error"}});
}

// Only the modes 4 and 6 can be told a bandwidth.
TEST_F(WiFi, SetsTheBandwidth) {
    const Texts words[] = {{"HT20", "HT40"}, {"VHT20", "VHT40", "VHT80"}};
    for (const int mode : {2, 3, 4, 5, 6, 7}) {
        const int band = mode > 4;
        EXPECT_EQ(Tavrik_Set_Netmode(mode, 0, band), 0);
        recorded("program");
        for (const int bandwidth : {INT_MIN, -1, 0, 1, 2, 3, INT_MAX}) {
            const bool good = (mode == 4 || mode == 6) && bandwidth >= 0 && size_t(bandwidth) < words[band].size();
            check("Tavrik_Set_Band",
                  {{[=] { return Tavrik_Set_Band(bandwidth, 0, band); },
                    good ? Texts{(band ? "AP0_5G.htmode='" : "AP0_2G.htmode='") + words[band][size_t(bandwidth)] + "'"}
                         : Texts()}});
            int now = -1;
            EXPECT_EQ(Tavrik_Get_Band(&now, 0, band), 0);
            EXPECT_TRUE(now == bandwidth || !good);
        }
    }
    const auto set = [](int band) { return [=] { return Tavrik_Set_Band(0, 0, band); }; };
    check("Tavrik_Get_Netmode", {{set(2), {}, "Parameter input error"}, {set(-1), {}, "Parameter input error"}});
    put({"AP0_2G: option hwmode 11AC; option htmode HT20"});
    check("Tavrik_Get_Netmode", {{set(0), {}, "get value is faild"}, {set(1), {}, "get value is faild"}});
}

TEST_F(WiFi, SetsTheChannel) {
    const auto set = [](int channel, int band) { return [=] { return Tavrik_Set_Channel(channel, 9, band); }; };
    const struct {
        const char *country;
        std::vector<int> good, bad;
    } countries[] = {
        {"US", {0, 1, 11}, {12, 14, -1}}, {"JP", {0, 14}, {15}}, {"IR", {}, {0, 1, -1}}, {"us", {}, {0, 6}}};
    for (const auto &country : countries) {
        for (const char *radio : {"AP0_2G", "AP0_5G"})
            output_of(std::string("uci set wireless.") + radio + ".country=" + country.country + "; uci commit");
        for (const int channel : country.good)
            check("Tavrik_Set_Channel", {{set(channel, 0), {"AP0_2G.channel='" + std::to_string(channel) + "'"}}});
        for (const int channel : country.bad)
            check("Tavrik_Set_Channel", {{set(channel, 0), {}}});
    }
    const Texts allowed = {"0", "36", "40", "44", "48", "52", "56", "60", "64", "149", "153", "157", "161"};
    Texts taken;
    for (int channel = -40; channel <= 200; ++channel) // whatever the country
        if (Tavrik_Set_Channel(channel, 0, 1) == 0) {
            int now = -1;
            EXPECT_EQ(Tavrik_Get_Channel(&now, 0, 1), 0);
            EXPECT_EQ(now, channel);
            taken.push_back(options()["AP0_5G.channel"]);
        }
    EXPECT_EQ(taken.size(), allowed.size());
    for (size_t i = 0; i < taken.size() && i < allowed.size(); ++i)
        EXPECT_EQ(taken[i], "'" + allowed[i] + "'");
    EXPECT_EQ(recorded("program"), restarted(allowed.size()));
    check("Tavrik_Set_Channel", {{set(36, 2), {}, "Parameter input error"}, {set(165, 1), {}}, {set(INT_MIN, 1), {}}});
}

TEST_F(WiFi, SetsAuthentication) {
    const Texts words = {"none", "psk2", "psk2+tkip+ccmp", "psk+ccmp", "psk+tkip+ccmp", "mixed-psk+aes", "mixed-psk"};
    const auto set = [](int auth, std::string key, int band = 0) {
        return [=] { return Tavrik_Set_Auth(auth, key.c_str(), 1, band); };
    };
    const std::string encryption = "AP0_2G_if.encryption='", key = "AP0_2G_if.key1='", shortest = "12345678",
                      longest(63, '~');
    std::vector<Set> calls;
    for (int auth = 1; auth < 7; ++auth) {
        const std::string word = words[size_t(auth)];
        calls.push_back({set(auth, shortest), {encryption + word + "'", key + shortest + "'"}});
        calls.push_back({set(auth, longest), {encryption + word + "'", key + longest + "'"}});
        for (const std::string &refused :
             {std::string("1234567"), longest + "~", std::string(), std::string("1234567\t"),
              std::string("1234567\x7F"), std::string("1234567\n"), std::string("Schl\xC3\xBCssel")})
            calls.push_back({set(auth, refused), {}, "Parameter input error"});
        calls.push_back({[=] { return Tavrik_Set_Auth(auth, nullptr, 0, 0); }, {}, "Parameter input error"});
    }
    calls.push_back({set(1, " it's \"~\" "), {encryption + "psk2'", key + " it'\\''s \"~\" '"}});
    calls.push_back({set(0, "\n"), {encryption + "none'"}}); // not looked at, and the key stays
    calls.push_back({[] { return Tavrik_Set_Auth(0, nullptr, 0, 1); }, {"AP0_5G_if.encryption='none'"}});
    for (const int auth : {-1, 7, 8, INT_MIN, INT_MAX})
        calls.push_back({set(auth, shortest), {}, "Parameter input error"});
    calls.push_back({set(1, shortest, 2), {}, "Parameter input error"});
    check("Tavrik_Set_Auth", calls);

    int auth = -1;
    char text[TAVRIK_WIFI_KEY_SIZE];
    for (int wanted = 6; wanted >= 0; --wanted) {
        EXPECT_EQ(Tavrik_Set_Auth(wanted, longest.c_str(), 0, 1) | Tavrik_Get_Auth(&auth, text, 0, 1), 0);
        EXPECT_EQ(auth, wanted);
        EXPECT_EQ(text, longest);
    }
}

TEST_F(WiFi, LimitsStations) {
    const auto set = [](int count, int band) { return [=] { return Tavrik_WiFi_Connect_Num_Config(count, 0, band); }; };
    check("Tavrik_WiFi_Connect_Num_Config", {{set(1, 0), {"AP0_2G_if.maxassoc='1'"}},
                                             {set(2007, 1), {"AP0_5G_if.maxassoc='2007'"}},
                                             {set(0, 0), {}, "Parameter input error"},
                                             {set(-1, 0), {}, "Parameter input error"},
                                             {set(2008, 0), {}, "Parameter input error"},
                                             {set(8, 2), {}, "Parameter input error"}});
}

TEST_F(WiFi, SwitchesAccessPoints) {
    const auto set = [](int mode, int band = 0) { return [=] { return Tavrik_Set_WiFi_Mode(mode, 0, band); }; };
    const auto written = [](const char *first, const char *second) {
        return Texts{std::string("AP0_2G.disabled='") + first + "'", std::string("AP1_2G.disabled='") + second + "'"};
    };
    check("Tavrik_Set_WiFi_Mode", {{set(3), written("0", "0")},
                                   {set(2), written("1", "0")},
                                   {set(0), written("1", "1")},
                                   {set(1), written("0", "1")},
                                   {set(2, 1), {"AP0_5G.disabled='1'", "AP1_5G.disabled='0'"}},
                                   {set(4), {}, "Parameter input error"},
                                   {set(-1), {}, "Parameter input error"},
                                   {set(1, 2), {}, "Parameter input error"}});
    // One that is not there is off: both are written, or none.
    put({"AP0_2G: option channel 6", "AP1_5G:"});
    check("Tavrik_Set_WiFi_Mode", {{set(3), {}, "set value is faild"},
                                   {set(0), {"AP0_2G.disabled='1'"}},
                                   {set(1), {"AP0_2G.disabled='0'"}},
                                   {set(2, 1), {"AP1_5G.disabled='0'"}},
                                   {set(1, 1), {}, "set value is faild"}});
}

// What a getter makes of an option as others may have written it.
TEST_F(WiFi, ReadsWhatOthersWrote) {
    using Get = int (*)(int *, int, int);
    const auto auth = [](int *value, int second, int band) { return Tavrik_Get_Auth(value, nullptr, second, band); };
    constexpr int none = -77; // nothing is read
    const struct {
        const char *function;
        Get get;
        int band;
        std::string section;
        int value;
    } cases[] = {
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 0, "AP0_2G_if: option hidden '1'", 1},
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 0, "AP0_2G_if: list hidden '1'", none},
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 0, "AP0_2G_if: option hidden 'yes'", none},
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 0, "AP0_2G_if: option hidden '01'", none},
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 0, "AP0_2G_if: option ssid 'x'", none},
        {"Tavrik_Get_Bcast", Tavrik_Get_Bcast, 1, "AP0_2G_if: option hidden '1'", none},
        {"Tavrik_Get_Isolate", Tavrik_Get_Isolate, 1, "AP0_5G_if: option isolate '1'", 1},
        {"Tavrik_Get_Isolate", Tavrik_Get_Isolate, 1, "AP0_5G_if: option isolate '2'", none},
        {"Tavrik_Get_Netmode", Tavrik_Get_Netmode, 0, "AP0_2G: option hwmode '11bg'", 3},
        {"Tavrik_Get_Netmode", Tavrik_Get_Netmode, 0, "AP0_2G: option hwmode '11ax'", none},
        {"Tavrik_Get_Netmode", Tavrik_Get_Netmode, 0, "AP0_2G: option hwmode '11ac'", none}, // of the other band
        {"Tavrik_Get_Netmode", Tavrik_Get_Netmode, 0, "AP0_2G: list hwmode '11g'; list hwmode '11ng'", none},
        {"Tavrik_Get_Netmode", Tavrik_Get_Netmode, 1, "AP0_5G: option hwmode '" + std::string(300, '1') + "'", none},
        {"Tavrik_Get_Band", Tavrik_Get_Band, 1, "AP0_5G: option htmode 'VHT80'", 2},
        {"Tavrik_Get_Band", Tavrik_Get_Band, 0, "AP0_2G: option htmode 'VHT20'", none},
        {"Tavrik_Get_Band", Tavrik_Get_Band, 0, "AP0_2G: option htmode 'HT40+'", none},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel 'auto'", 0},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel '165'", 165},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel '-1'", none},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel ' 6'", none},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel '6x'", none},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel 'automatic'", none},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: option channel '99999999999999999999'", INT_MAX},
        {"Tavrik_Get_Channel", Tavrik_Get_Channel, 0, "AP0_2G: list channel '6'", none},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'wep+shared'", 7},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'wep+shared+tkip'", 7},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'psk2+tkip'", 8},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'psk-mixed+tkip+ccmp'", 8},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'psk-mixed'", 6},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption 'sae'", none},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: list encryption 'psk2'", none},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option key1 '12345678'", none},
        {"Tavrik_Get_Auth", auth, 0, "AP0_2G_if: option encryption psk2; option key1 " + std::string(65, 'a'), none},
        {"Tavrik_Get_WiFi_Mode", Tavrik_Get_WiFi_Mode, 0, "AP0_2G: option channel '6'", 1},
        {"Tavrik_Get_WiFi_Mode", Tavrik_Get_WiFi_Mode, 0, "AP1_2G: option disabled '0'", 2},
        {"Tavrik_Get_WiFi_Mode", Tavrik_Get_WiFi_Mode, 0, "AP1_2G: option disabled 'true'", 0},
        {"Tavrik_Get_WiFi_Mode", Tavrik_Get_WiFi_Mode, 1, "AP1_2G: option disabled '0'", 0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.function + (" " + test.section));
        put({test.section});
        int value = none;
        EXPECT_EQ(log_of([&] { EXPECT_EQ(test.get(&value, 5, test.band), test.value == none ? -1 : 0); }),
                  line(test.function, test.value == none ? "get value is faild" : ""));
        EXPECT_EQ(value, test.value);
        EXPECT_EQ(log_of([&] {
                      EXPECT_EQ(test.get(nullptr, 0, test.band), -1);
                      EXPECT_EQ(test.get(&value, 0, 2), -1);
                  }),
                  line(test.function, "Parameter input error") + line(test.function, "Parameter input error"));
        EXPECT_EQ(value, test.value);
    }
    EXPECT_EQ(recorded("program"), Texts());
}

TEST_F(WiFi, ReadsTextsIntoTheirBuffers) {
    const std::string name = "0123456789abcdef0123456789abcdef", hex = name + name;
    const struct {
        std::string option, text; // empty: not read
    } names[] = {{"option ssid 'it'\\''s \"x\"'", "it's \"x\""},
                 {"option ssid " + name, name},
                 {"option ssid " + name + "X", name},
                 {"option ssid " + std::string(1000, 'x'), std::string(32, 'x')},
                 {"list ssid a; list ssid b", ""},
                 {"option hidden 0", ""}};
    for (const auto &test : names) {
        put({"AP0_5G_if: " + test.option});
        std::string text(TAVRIK_WIFI_SSID_SIZE + 1, '#');
        EXPECT_EQ(log_of([&] { Tavrik_Get_SSID(text.data(), 0, 1); }),
                  line("Tavrik_Get_SSID", test.text.empty() ? "get value is faild" : ""));
        EXPECT_EQ(test.text.empty() ? text : text.c_str(),
                  test.text.empty() ? std::string(TAVRIK_WIFI_SSID_SIZE + 1, '#') : test.text);
        EXPECT_EQ(text.back(), '#');
    }
    EXPECT_EQ(log_of([] {
                  Tavrik_Get_SSID(nullptr, 0, 1);
                  char text[TAVRIK_WIFI_SSID_SIZE];
                  Tavrik_Get_SSID(text, 0, 2);
              }),
              line("Tavrik_Get_SSID", "Parameter input error") + line("Tavrik_Get_SSID", "Parameter input error"));

    for (const auto &[option, wanted] : {std::pair<std::string, std::string>("option key1 " + hex, hex),
                                         {"list key1 12345678", ""},
                                         {"option mode ap", ""}}) {
        put({"AP0_2G_if: option encryption psk2; " + option});
        std::string key(TAVRIK_WIFI_KEY_SIZE + 1, '#');
        int auth = -1;
        EXPECT_EQ(Tavrik_Get_Auth(&auth, key.data(), 0, 0), 0);
        EXPECT_EQ(key.c_str(), wanted);
        EXPECT_EQ(key.back(), '#');
    }
}

TEST_F(WiFi, KnowsTheChannelsOf140Countries) {
    std::map<std::string, int> highest = {{"JP", 14}, {"IR", 0}, {"SY", 0}};
    for (const char *code : {"AS", "CA", "FM", "GU", "KY", "MP", "PR", "TW", "UM", "US", "VI"})
        highest[code] = 11;
    std::istringstream list(
        "AE AF AL AM AR AT AU AZ BA BB BD BE BF BG BH BN BO BR BS BW BY BZ CH CI CL CN CO CR CU CY CZ DE "
        "DK DZ EC EE EG ES ET FI FR GB GE GH GR GT GY HK HN HR HU ID IE IL IN IS IT JM JO KE KH KP KR "
        "KW KZ LB LI LK LT LU LV MA MD ME MK MN MO MR MT MU MV MW MX NA NG NL NO NP NZ OM PA PE PG PH "
        "PL PT PY QA RO RS RU RW SA SE SG SI SK SN SR SV TD TG TH TN TR TT TZ UA UG UY UZ VE VN YE ZA "
        "ZM");
    for (std::string code; list >> code;)
        highest[code] = 13;
    EXPECT_EQ(highest.size(), 140u);
    for (char first = 'A'; first <= 'Z'; ++first)
        for (char second = 'A'; second <= 'Z'; ++second) {
            const std::string code = {first, second};
            const int most = highest.count(code) ? highest[code] : 0;
            put({"AP0_2G: option country '" + code + "'"});
            EXPECT_EQ(check_channel_with_crty(most, 0) != 0, most > 0) << code;
            EXPECT_EQ(check_channel_with_crty(most + 1, 0), 0) << code;
            EXPECT_EQ(check_channel_with_crty(0, 5) != 0, most > 0) << code;
        }
}

TEST_F(WiFi, LooksForTheCountry) {
    const struct {
        Texts sections;
        int most; // -1: no channel at all
    } cases[] = {
        {{"AP0_2G: option country US", "AP0_5G: option country JP"}, 14}, // the last one wins
        {{"AP0_2G: option country JP", "AP0_5G: option country US"}, 11},
        {{"AP0_2G: option country JP", "AP0_5G: option channel 36"}, 14},
        {{"AP0_2G: option country JP", "AP0_5G: list country US"}, 14},
        {{"AP0_2G: option country JP", "AP0_5G: option country ''"}, 14}, // the store drops an empty one
        {{"AP0_2G: option country JP", "AP0_2G_if: option country US"}, 14},
        {{"radio7: option country US"}, 11}, // by type, not by name
        {{"AP0_2G: option country US", "AP0_5G: option country us"}, -1},
        {{"AP0_2G: option country Us"}, -1},
        {{"AP0_2G: option country USA"}, -1},
        {{"AP0_2G: option country 'US '"}, -1},
        {{"AP0_2G: option country XX"}, -1},
        {{"AP0_2G: list country US"}, -1},
        {{"AP0_2G_if: option country US"}, -1},
        {{"AP0_2G: option channel 6"}, -1},
        {{}, -1},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.sections));
        put(test.sections);
        for (const int channel : {INT_MIN, -1, 0, 1, 11, 12, 13, 14, 15, INT_MAX})
            EXPECT_EQ(check_channel_with_crty(channel, 0) != 0, channel >= 0 && channel <= test.most) << channel;
    }
    sim::call("uci", {{"package", "wireless"}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(check_channel_with_crty(1, 0), 0); }), "");
}

// Each setter with arguments that it takes, and each getter.
const struct {
    const char *function;
    int (*run)();
} setters[] = {
    {"Tavrik_Set_SSID", [] { return Tavrik_Set_SSID("changed", 0, 0); }},
    {"Tavrik_Set_Bcast", [] { return Tavrik_Set_Bcast(1, 0, 0); }},
    {"Tavrik_Set_Isolate", [] { return Tavrik_Set_Isolate(1, 0, 0); }},
    {"Tavrik_Set_Auth", [] { return Tavrik_Set_Auth(2, "changed!", 0, 0); }},
    {"Tavrik_WiFi_Connect_Num_Config", [] { return Tavrik_WiFi_Connect_Num_Config(3, 0, 0); }},
    {"Tavrik_Set_Netmode", [] { return Tavrik_Set_Netmode(2, 0, 0); }},
    {"Tavrik_Set_Band", [] { return Tavrik_Set_Band(2, 0, 1); }},
    {"Tavrik_Set_Channel", [] { return Tavrik_Set_Channel(161, 0, 1); }},
    {"Tavrik_Set_WiFi_Mode", [] { return Tavrik_Set_WiFi_Mode(3, 0, 0); }},
};
const struct {
    const char *function;
    int (*run)(int *, int, int);
} getters[] = {
    {"Tavrik_Get_Bcast", Tavrik_Get_Bcast},
    {"Tavrik_Get_Isolate", Tavrik_Get_Isolate},
    {"Tavrik_Get_Netmode", Tavrik_Get_Netmode},
    {"Tavrik_Get_Band", Tavrik_Get_Band},
    {"Tavrik_Get_Channel", Tavrik_Get_Channel},
    {"Tavrik_Get_WiFi_Mode", Tavrik_Get_WiFi_Mode},
    {"Tavrik_Get_Auth", [](int *auth, int, int band) { return Tavrik_Get_Auth(auth, nullptr, 0, band); }},
};

TEST_F(WiFi, PackageThatCannotBeWritten) {
    const struct {
        const char *what;
        nlohmann::json fault;
        bool readable;
    } cases[] = {{"read-only", {{"service", "etc"}, {"read_only", true}}, true},
                 {"full", {{"service", "etc"}, {"full", true}}, true},
                 {"missing", nullptr, false},
                 {"malformed", "config wifi-device 'AP0_2G\n", false},
                 {"without sections", "\nconfig other 'x'\n", false}};
    const std::string before = bytes_of(file);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        if (test.fault.is_object())
            sim::call("fault", test.fault);
        else if (test.fault.is_string())
            sim::call("uci", {{"package", "wireless"}, {"text", test.fault}});
        else
            sim::call("uci", {{"package", "wireless"}});
        const std::string bytes = package_bytes();
        for (const auto &setter : setters) {
            // Without a mode to read, there is none that could be told a bandwidth.
            const bool unread = !test.readable && setter.function == std::string("Tavrik_Set_Band");
            const std::string wanted =
                unread ? line("Tavrik_Get_Netmode", "get value is faild") : line(setter.function, "set value is faild");
            const std::string log = log_of([&] { EXPECT_EQ(setter.run(), -1); });
            EXPECT_EQ(log.substr(log.size() - std::min(log.size(), wanted.size())), wanted);
            EXPECT_EQ(package_bytes(), bytes);
        }
        for (const auto &getter : getters) {
            int value = -77;
            const bool nothing_on = test.fault.is_string() && test.what[0] == 'w' &&
                                    getter.run == Tavrik_Get_WiFi_Mode; // no section, nothing that is on
            const bool good = test.readable || nothing_on;
            EXPECT_EQ(log_of([&] { EXPECT_EQ(getter.run(&value, 0, 0), good ? 0 : -1); }),
                      line(getter.function, good ? "" : "get value is faild"));
            EXPECT_EQ(value == -77, !good);
        }
        EXPECT_EQ(recorded("program"), Texts());
        sim::call("reset");
        EXPECT_EQ(bytes_of(file), before);
    }
}

TEST_F(WiFi, WaitsForAnotherProgramsLockOnlySoLong) {
    sim::call("fault", {{"service", "etc"}, {"lock", "wireless"}});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 0), -1); }),
              line("Tavrik_Set_Bcast", "uci: /etc/config/wireless is locked") +
                  line("Tavrik_Set_Bcast", "set value is faild"));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(4995));
    EXPECT_LT(took, std::chrono::seconds(30));
    sim::call("clear");
    EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 0), 0);
}

// What is written stays.
TEST_F(WiFi, RestartThatFails) {
    for (const nlohmann::json &fault :
         {nlohmann::json{{"exit", 1}}, {{"exit", 255}}, {{"signal", 9}}, {{"signal", 15}}, {{"stop", true}}}) {
        SCOPED_TRACE(fault.dump());
        nlohmann::json effect = fault;
        effect["service"] = "mwlan";
        sim::call("fault", effect);
        for (const auto &setter : setters) {
            const auto before = options();
            EXPECT_EQ(log_of([&] { EXPECT_EQ(setter.run(), -1); }), line(setter.function, "wifi system cmd faild "));
            EXPECT_NE(options(), before) << setter.function;
        }
        EXPECT_EQ(recorded("program"), restarted(fault.contains("stop") ? 0 : std::size(setters)));
        sim::call("reset");
    }
    // The host has thrown the status away.
    sim::call("fault", {{"service", "mwlan"}, {"exit", 1}});
    const auto before = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 0), 0);
    signal(SIGCHLD, before);
    sim::call("reset");
    sim::call("fault", {{"service", "mwlan"}, {"sleep", 300}});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 0), 0); }), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(295));
}

// A restart that lasts holds up nobody who reads or writes meanwhile, the service least of all.
TEST_F(WiFi, HoldsNothingDuringTheRestart) {
    const std::string script = bytes_of(service);
    std::ofstream(service)
        << "#!/bin/sh\nuci set wireless.AP0_2G.seen=\"$(uci get wireless.AP0_2G_if.ssid)\" && uci commit\n"
           "touch /tmp/restarting\nuntil [ -e /tmp/go ]; do sleep 0.01; done\n";
    std::thread slow([] { EXPECT_EQ(Tavrik_Set_SSID("slow", 0, 0), 0); });
    while (access("/tmp/restarting", F_OK))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    int channel = -1;
    EXPECT_EQ(Tavrik_Get_Channel(&channel, 0, 1), 0);
    EXPECT_EQ(channel, 36);
    std::ofstream(service + ".new") << "#!/bin/sh\n";
    chmod((service + ".new").c_str(), 0755);
    rename((service + ".new").c_str(), service.c_str());
    EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 1), 0);
    std::ofstream("/tmp/go") << "";
    slow.join();
    EXPECT_EQ(options()["AP0_2G.seen"], "'slow'");
    EXPECT_EQ(options()["AP0_5G_if.hidden"], "'1'");
    std::ofstream(service) << script;
}

TEST_F(WiFi, SettersAtOnce) {
    constexpr int rounds = 15;
    std::vector<std::thread> threads;
    for (const int band : {0, 1}) {
        threads.emplace_back([band] {
            for (int i = 1; i <= rounds; ++i)
                EXPECT_EQ(Tavrik_Set_SSID(std::to_string(i).c_str(), 0, band), 0);
        });
        threads.emplace_back([band] {
            for (int i = 1; i <= rounds; ++i)
                EXPECT_EQ(Tavrik_WiFi_Connect_Num_Config(i, 0, band), 0);
        });
    }
    threads.emplace_back([] {
        for (int i = 0, auth; i < 100; ++i) {
            char key[TAVRIK_WIFI_KEY_SIZE];
            EXPECT_EQ(Tavrik_Get_Auth(&auth, key, 0, 0), 0);
            EXPECT_STREQ(key, "0123456789");
        }
    });
    for (std::thread &thread : threads)
        thread.join();
    auto now = options();
    for (const char *option : {"AP0_2G_if.ssid", "AP0_5G_if.ssid", "AP0_2G_if.maxassoc", "AP0_5G_if.maxassoc"})
        EXPECT_EQ(now[option], "'" + std::to_string(rounds) + "'") << option;
    EXPECT_EQ(recorded("program"), restarted(4 * rounds));
}

} // namespace

// The access points: what is written (read back by uci's own program), what restarts, what is read of any package.
#include <algorithm>
#include <climits>
#include <csignal>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::log_of, sim::recorded;
using Texts = std::vector<std::string>;

const std::string file = "/etc/config/wireless";

int set_ssid(const std::string &ssid, int band) {
    return Tavrik_Set_SSID(ssid.c_str(), 77, band);
}
int set_auth(const std::string &auth, int band) { // "NUMBER KEY", or without a key
    const size_t blank = auth.find(' ');
    return Tavrik_Set_Auth(std::stoi(auth), blank == auth.npos ? nullptr : &auth[blank + 1], 77, band);
}
int get_auth(int *auth, int second, int band) {
    return Tavrik_Get_Auth(auth, nullptr, second, band);
}
template <int (*set)(int, int, int)>
int number(const std::string &value, int band) {
    return set(std::stoi(value), 77, band);
}
struct Setting {
    std::string function;
    int (*set)(const std::string &, int);
    int (*get)(int *, int, int);
    const char *value; // that is not in the package at first
    int band;
    int change() const { return set(value, band); }
};
const Setting settings[] = {
    {"Tavrik_Set_SSID", set_ssid, nullptr, "changed", 0},
    {"Tavrik_Set_Bcast", number<Tavrik_Set_Bcast>, Tavrik_Get_Bcast, "1", 0},
    {"Tavrik_Set_Isolate", number<Tavrik_Set_Isolate>, Tavrik_Get_Isolate, "1", 0},
    {"Tavrik_Set_Auth", set_auth, get_auth, "2 changed!", 0},
    {"Tavrik_WiFi_Connect_Num_Config", number<Tavrik_WiFi_Connect_Num_Config>, nullptr, "3", 0},
    {"Tavrik_Set_Netmode", number<Tavrik_Set_Netmode>, Tavrik_Get_Netmode, "2", 0},
    {"Tavrik_Set_Band", number<Tavrik_Set_Band>, Tavrik_Get_Band, "2", 1},
    {"Tavrik_Set_Channel", number<Tavrik_Set_Channel>, Tavrik_Get_Channel, "161", 1},
    {"Tavrik_Set_WiFi_Mode", number<Tavrik_Set_WiFi_Mode>, Tavrik_Get_WiFi_Mode, "3", 0},
};
const Setting &setting_of(const std::string &function) {
    return *std::find_if(settings, std::end(settings), [&](const Setting &one) { return one.function == function; });
}

// What is staged for the package is a part of it.
std::string package_bytes() {
    return read_file(file) + read_file("/tmp/.uci/wireless");
}
// The package as uci's program tells it: "SECTION.OPTION" and its value in quotes.
std::map<std::string, std::string> options() {
    std::map<std::string, std::string> all;
    std::istringstream text(shell("uci show wireless").output);
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
// A package of these sections alone, "NAME: LINE; LINE…|NAME: …", as somebody may have written it.
void put(const std::string &sections) {
    std::istringstream all(sections);
    std::string text;
    for (std::string section; std::getline(all, section, '|');) {
        const std::string name = section.substr(0, section.find(':'));
        text += "\nconfig wifi-" + std::string(name.find("_if") == name.npos ? "device '" : "iface '") + name + "'\n";
        std::istringstream lines(section.substr(name.size() + 1));
        for (std::string option; std::getline(lines >> std::ws, option, ';');)
            text += "\t" + option + "\n";
    }
    write_file(file, text);
}

// Calls of a setter with each of the values: what it changes, and what it logs.
struct Set {
    std::string function;
    Texts values;
    int band;
    Texts changes = {}; // "SECTION.OPTION='VALUE'", or "SECTION.OPTION" that is gone; none: -1
    std::string log = "";
};

class WiFi : public testing::Test {
  protected:
    WiFi() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~WiFi() override { sim::call("reset"); }
    static void check(const std::vector<Set> &calls) {
        for (const Set &call : calls)
            for (const std::string &value : call.values) {
                const Setting &setting = setting_of(call.function);
                SCOPED_TRACE(call.function + " " + value);
                const bool good = !call.changes.empty();
                const std::string bytes = package_bytes();
                auto wanted = options();
                for (const std::string &change : call.changes)
                    if (const size_t at = change.find('='); at == change.npos)
                        wanted.erase(change);
                    else
                        wanted[change.substr(0, at)] = change.substr(at + 1);
                EXPECT_EQ(log_of([&] { EXPECT_EQ(setting.set(value, call.band), good ? 0 : -1); }),
                          line(call.function, call.log));
                EXPECT_EQ(options(), wanted);
                EXPECT_TRUE(good || package_bytes() == bytes);
                EXPECT_EQ(recorded("program"), restarted(good));
                int now = -1;
                if (const auto get = setting.get; good && get) {
                    EXPECT_EQ(get(&now, 77, call.band), 0);
                    EXPECT_EQ(now, std::stoi(value));
                }
            }
    }
};

TEST_F(WiFi, Sets) {
    const std::string name(32, 's'), key(63, '~'), no = "Parameter input error";
    const auto secured = [](const std::string &word, const std::string &text) {
        return Texts{"AP0_2G_if.encryption='" + word + "'", "AP0_2G_if.key1='" + text + "'"};
    };
    check({
        {"Tavrik_Set_SSID", {"One", "One"}, 0, {"AP0_2G_if.ssid='One'"}},
        {"Tavrik_Set_SSID", {"Five"}, 1, {"AP0_5G_if.ssid='Five'"}},
        {"Tavrik_Set_SSID", {name}, 0, {"AP0_2G_if.ssid='" + name + "'"}},
        {"Tavrik_Set_SSID", {name + "s"}, 0, {}, "the ssid length more than 32bit"},
        {"Tavrik_Set_SSID", {"It's \"$(x)\" `x`; # \\n%s"}, 0, {"AP0_2G_if.ssid='It'\\''s \"$(x)\" `x`; # \\n%s'"}},
        {"Tavrik_Set_SSID", {" \x7F\x80\xFF caf\xC3\xA9 "}, 0, {"AP0_2G_if.ssid=' \x7F\x80\xFF caf\xC3\xA9 '"}},
        {"Tavrik_Set_SSID", {"a\x01", "a\t", "a\n", "a\r", "a\x1F"}, 0, {}, "set value is faild"},
        {"Tavrik_Set_SSID", {""}, 0, {"AP0_2G_if.ssid"}},
        {"Tavrik_Set_Bcast", {"1"}, 0, {"AP0_2G_if.hidden='1'"}},
        {"Tavrik_Set_Bcast", {"0"}, 0, {"AP0_2G_if.hidden='0'"}},
        {"Tavrik_Set_Bcast", {"1"}, 1, {"AP0_5G_if.hidden='1'"}},
        {"Tavrik_Set_Bcast", {"2", "-1", "256"}, 2, {}, "please input 0 or 1"},
        {"Tavrik_Set_Isolate", {"1"}, 0, {"AP0_2G_if.isolate='1'"}},
        {"Tavrik_Set_Isolate", {"2", "-1", "256"}, 0, {}, "please input 0 or 1"},
        // only the modes 4 and 6 can be told a bandwidth
        {"Tavrik_Set_Netmode", {"2"}, 0, {"AP0_2G.hwmode='11g'"}},
        {"Tavrik_Set_Netmode", {"3"}, 0, {"AP0_2G.hwmode='11bg'"}},
        {"Tavrik_Set_Band", {"0", "1"}, 0},
        {"Tavrik_Set_Netmode", {"4"}, 0, {"AP0_2G.hwmode='11ng'"}},
        {"Tavrik_Set_Band", {"1"}, 0, {"AP0_2G.htmode='HT40'"}},
        {"Tavrik_Set_Band", {"0"}, 0, {"AP0_2G.htmode='HT20'"}},
        {"Tavrik_Set_Band", {"2", "-1"}, 0},
        {"Tavrik_Set_Netmode", {"1", "5", "-1"}, 0},
        {"Tavrik_Set_Netmode", {"5"}, 1, {"AP0_5G.hwmode='11a'"}},
        {"Tavrik_Set_Band", {"0", "2"}, 1},
        {"Tavrik_Set_Netmode", {"6"}, 1, {"AP0_5G.hwmode='11na'"}},
        {"Tavrik_Set_Band", {"0"}, 1, {"AP0_5G.htmode='VHT20'"}},
        {"Tavrik_Set_Band", {"1"}, 1, {"AP0_5G.htmode='VHT40'"}},
        {"Tavrik_Set_Band", {"2"}, 1, {"AP0_5G.htmode='VHT80'"}},
        {"Tavrik_Set_Band", {"3", "-1"}, 1},
        {"Tavrik_Set_Netmode", {"7"}, 1, {"AP0_5G.hwmode='11ac'"}},
        {"Tavrik_Set_Band", {"0", "2"}, 1},
        {"Tavrik_Set_Netmode", {"4", "8", "-1"}, 1},
        {"Tavrik_Set_Channel", {"0"}, 0, {"AP0_2G.channel='0'"}},
        {"Tavrik_Set_Channel", {"13"}, 0, {"AP0_2G.channel='13'"}},
        {"Tavrik_Set_Channel", {"14", "-1", "36"}, 0},
        {"Tavrik_Set_Auth", {"1 12345678"}, 0, secured("psk2", "12345678")},
        {"Tavrik_Set_Auth", {"2 " + key}, 0, secured("psk2+tkip+ccmp", key)},
        {"Tavrik_Set_Auth", {"3 12345678"}, 0, secured("psk+ccmp", "12345678")},
        {"Tavrik_Set_Auth", {"4  it's \"~\" "}, 0, secured("psk+tkip+ccmp", " it'\\''s \"~\" ")},
        {"Tavrik_Set_Auth", {"5 12345678"}, 0, secured("mixed-psk+aes", "12345678")},
        {"Tavrik_Set_Auth", {"6 12345678"}, 0, secured("mixed-psk", "12345678")},
        {"Tavrik_Set_Auth", {"0 \n"}, 0, {"AP0_2G_if.encryption='none'"}}, // not looked at, and the key stays
        {"Tavrik_Set_Auth", {"0"}, 1, {"AP0_5G_if.encryption='none'"}},
        {"Tavrik_Set_Auth", {"1", "6", "1 ", "1 1234567", "3 " + key + "~", "1 1234567\t"}, 0, {}, no},
        {"Tavrik_Set_Auth", {"6 1234567\n", "1 1234567\x7F", "1 Schl\xC3\xBCssel"}, 0, {}, no},
        {"Tavrik_Set_Auth", {"-1 12345678", "7 12345678", "8 12345678"}, 0, {}, no},
        {"Tavrik_WiFi_Connect_Num_Config", {"1"}, 0, {"AP0_2G_if.maxassoc='1'"}},
        {"Tavrik_WiFi_Connect_Num_Config", {"2007"}, 1, {"AP0_5G_if.maxassoc='2007'"}},
        {"Tavrik_WiFi_Connect_Num_Config", {"0", "-1", "2008"}, 0, {}, no},
        {"Tavrik_Set_WiFi_Mode", {"3"}, 0, {"AP0_2G.disabled='0'", "AP1_2G.disabled='0'"}},
        {"Tavrik_Set_WiFi_Mode", {"0"}, 0, {"AP0_2G.disabled='1'", "AP1_2G.disabled='1'"}},
        {"Tavrik_Set_WiFi_Mode", {"1"}, 0, {"AP0_2G.disabled='0'", "AP1_2G.disabled='1'"}},
        {"Tavrik_Set_WiFi_Mode", {"2"}, 1, {"AP0_5G.disabled='1'", "AP1_5G.disabled='0'"}},
        {"Tavrik_Set_WiFi_Mode", {"4", "-1"}, 0, {}, no},
    });
    const Texts allowed = {"0", "36", "40", "44", "48", "52", "56", "60", "64", "149", "153", "157", "161"};
    for (int channel = -40; channel <= 200; ++channel) { // whatever the country
        const std::string text = std::to_string(channel);
        const bool good = std::count(allowed.begin(), allowed.end(), text);
        check({{"Tavrik_Set_Channel", {text}, 1, good ? Texts{"AP0_5G.channel='" + text + "'"} : Texts{}}});
    }
    // One that is not there is off: both are written, or none.
    put("AP0_2G: option channel 6|AP1_5G:");
    check({{"Tavrik_Set_WiFi_Mode", {"3"}, 0, {}, "set value is faild"},
           {"Tavrik_Set_WiFi_Mode", {"0"}, 0, {"AP0_2G.disabled='1'"}},
           {"Tavrik_Set_WiFi_Mode", {"1"}, 0, {"AP0_2G.disabled='0'"}},
           {"Tavrik_Set_WiFi_Mode", {"2"}, 1, {"AP1_5G.disabled='0'"}},
           {"Tavrik_Set_WiFi_Mode", {"1"}, 1, {}, "set value is faild"}});
    for (const Setting &one : settings)
        for (const int band : {2, -1}) // the bandwidth asks for the mode
            EXPECT_EQ(log_of([&] { EXPECT_EQ(one.set(one.value, band), -1); }),
                      line(one.function == "Tavrik_Set_Band" ? "Tavrik_Get_Netmode" : one.function, no));
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Set_SSID(nullptr, 0, 0), -1); }), line("Tavrik_Set_SSID", no));
}

// What a getter makes of an option as others may have written it.
TEST_F(WiFi, ReadsWhatOthersWrote) {
    constexpr int none = -77; // nothing is read
    const struct {
        std::string function;
        int band;
        const char *section;
        Texts lines;
        int value;
    } cases[] = {
        {"Tavrik_Get_Bcast", 0, "AP0_2G_if", {"option hidden 1"}, 1},
        {"Tavrik_Get_Bcast", 0, "AP0_2G_if", {"list hidden 1", "option hidden yes", "option hidden 01", ""}, none},
        {"Tavrik_Get_Bcast", 1, "AP0_2G_if", {"option hidden 1"}, none},
        {"Tavrik_Get_Isolate", 1, "AP0_5G_if", {"option isolate 2", "option hidden 1"}, none},
        {"Tavrik_Get_Netmode", 0, "AP0_2G", {"option hwmode 11ax", "option hwmode 11ac", "list hwmode 11g"}, none},
        {"Tavrik_Get_Netmode", 1, "AP0_5G", {"option hwmode " + std::string(300, '1')}, none},
        {"Tavrik_Get_Band", 0, "AP0_2G", {"option htmode VHT20", "option htmode HT40+"}, none},
        {"Tavrik_Get_Channel", 0, "AP0_2G", {"option channel auto"}, 0},
        {"Tavrik_Get_Channel", 0, "AP0_2G", {"option channel 165"}, 165},
        {"Tavrik_Get_Channel", 0, "AP0_2G", {"option channel -1", "option channel ' 6'", "option channel 6x"}, none},
        {"Tavrik_Get_Channel", 0, "AP0_2G", {"option channel automatic", "list channel 6"}, none},
        {"Tavrik_Get_Channel", 0, "AP0_2G", {"option channel 99999999999999999999"}, INT_MAX},
        {"Tavrik_Get_Auth", 0, "AP0_2G_if", {"option encryption wep+shared", "option encryption a+shared+tkip"}, 7},
        {"Tavrik_Get_Auth", 0, "AP0_2G_if", {"option encryption psk2+tkip", "option encryption mixed+tkip+ccmp"}, 8},
        {"Tavrik_Get_Auth", 0, "AP0_2G_if", {"option encryption psk-mixed"}, 6},
        {"Tavrik_Get_Auth", 0, "AP0_2G_if", {"option encryption sae", "list encryption psk2", "option key1 1"}, none},
        {"Tavrik_Get_Auth", 0, "AP0_2G_if", {"option encryption psk2; option key1 " + std::string(65, 'a')}, none},
        {"Tavrik_Get_WiFi_Mode", 0, "AP0_2G", {"option channel 6"}, 1},
        {"Tavrik_Get_WiFi_Mode", 0, "AP1_2G", {"option disabled 0"}, 2},
        {"Tavrik_Get_WiFi_Mode", 0, "AP1_2G", {"option disabled true"}, 0},
    };
    for (const auto &test : cases)
        for (const std::string &option : test.lines) {
            SCOPED_TRACE(test.function + " " + option);
            const auto get = setting_of(std::string(test.function).replace(7, 1, "S")).get;
            put(test.section + (": " + option));
            int value = none;
            EXPECT_EQ(log_of([&] { EXPECT_EQ(get(&value, 5, test.band), test.value == none ? -1 : 0); }),
                      line(test.function, test.value == none ? "get value is faild" : ""));
            EXPECT_EQ(log_of([&] { EXPECT_EQ(get(nullptr, 0, test.band) + get(&value, 0, 2), -2); }),
                      line(test.function, "Parameter input error") + line(test.function, "Parameter input error"));
            EXPECT_EQ(value, test.value);
        }
    EXPECT_EQ(recorded("program"), Texts());
}

TEST_F(WiFi, ReadsTextsIntoTheirBuffers) {
    const std::string name(32, 'x'), key(64, 'a');
    const struct {
        std::string package, wanted;
        size_t size = TAVRIK_WIFI_SSID_SIZE;
    } cases[] = {{"AP0_2G_if: option ssid 'it'\\''s \"x\"'", "it's \"x\""},
                 {"AP0_2G_if: option ssid " + name, name},
                 {"AP0_2G_if: option ssid " + name + "X", name},
                 {"AP0_2G_if: list ssid a; list ssid b", ""},
                 {"AP0_2G_if: option encryption psk2; option key1 " + key, key, TAVRIK_WIFI_KEY_SIZE},
                 {"AP0_2G_if: option encryption psk2; list key1 12345678", "", TAVRIK_WIFI_KEY_SIZE}};
    for (const auto &test : cases) {
        put(test.package);
        const bool read = test.package.find("list ssid") == test.package.npos;
        std::string text(test.size + 1, '#');
        int auth = -1;
        EXPECT_EQ(log_of([&] {
                      if (test.size == TAVRIK_WIFI_SSID_SIZE)
                          Tavrik_Get_SSID(text.data(), 77, 0);
                      else
                          EXPECT_EQ(Tavrik_Get_Auth(&auth, text.data(), 77, 0), 0);
                  }),
                  line("Tavrik_Get_SSID", read ? "" : "get value is faild"));
        EXPECT_EQ(text.substr(0, test.wanted.size() + 1), test.wanted + (read ? '\0' : '#'));
        EXPECT_EQ(text.back(), '#');
    }
    char text[TAVRIK_WIFI_SSID_SIZE];
    for (const auto &[buffer, band] : {std::pair(static_cast<char *>(nullptr), 0), std::pair(text, 2)})
        EXPECT_EQ(log_of([&, to = buffer, of = band] { Tavrik_Get_SSID(to, 0, of); }),
                  line("Tavrik_Get_SSID", "Parameter input error"));
}

TEST_F(WiFi, KnowsTheChannelsOf140Countries) {
    std::map<std::string, int> highest = {{"JP", 14}, {"IR", 0}, {"SY", 0}};
    for (const char *code : {"AS", "CA", "FM", "GU", "KY", "MP", "PR", "TW", "UM", "US", "VI"})
        highest[code] = 11;
    std::istringstream list(
        "AE AF AL AM AR AT AU AZ BA BB BD BE BF BG BH BN BO BR BS BW BY BZ CH CI CL CN CO CR CU CY CZ DE DK DZ EC EE "
        "EG ES ET FI FR GB GE GH GR GT GY HK HN HR HU ID IE IL IN IS IT JM JO KE KH KP KR KW KZ LB LI LK LT LU LV MA "
        "MD ME MK MN MO MR MT MU MV MW MX NA NG NL NO NP NZ OM PA PE PG PH PL PT PY QA RO RS RU RW SA SE SG SI SK SN "
        "SR SV TD TG TH TN TR TT TZ UA UG UY UZ VE VN YE ZA ZM");
    for (std::string code; list >> code;)
        highest[code] = 13;
    EXPECT_EQ(highest.size(), 140u);
    for (char first = 'A'; first <= 'Z'; ++first)
        for (char second = 'A'; second <= 'Z'; ++second) {
            const std::string code = {first, second};
            const int most = highest.count(code) ? highest[code] : 0;
            put("AP0_2G: option country '" + code + "'");
            EXPECT_EQ(check_channel_with_crty(most, 0) != 0, most > 0) << code;
            EXPECT_EQ(check_channel_with_crty(most + 1, 0), 0) << code;
            EXPECT_EQ(check_channel_with_crty(0, 5) != 0, most > 0) << code;
        }
}

TEST_F(WiFi, LooksForTheCountry) {
    const std::pair<Texts, int> cases[] = {
        // the last one wins; of devices only, whatever their names
        {{"AP0_2G: option country US|AP0_5G: option country JP", "AP0_2G: option country JP|AP0_5G: option channel 36",
          "AP0_2G: option country JP|AP0_5G: list country US", "AP0_2G: option country JP|AP0_5G: option country ''",
          "AP0_2G: option country JP|AP0_2G_if: option country US"},
         14},
        {{"AP0_2G: option country JP|AP0_5G: option country US", "radio7: option country US"}, 11},
        {{"AP0_2G: option country US|AP0_5G: option country us", "AP0_2G: option country USA",
          "AP0_2G: option country 'US '", "AP0_2G: list country US", "AP0_2G_if: option country US",
          "AP0_2G: option channel 6", ""},
         -1}};
    for (const auto &[packages, most] : cases)
        for (const std::string &package : packages) {
            SCOPED_TRACE(package);
            put(package);
            for (const int channel : {INT_MIN, -1, 0, 1, 11, 12, 13, 14, 15, INT_MAX})
                EXPECT_EQ(check_channel_with_crty(channel, 0) != 0, channel >= 0 && channel <= most) << channel;
        }
    sim::call("uci", {{"package", "wireless"}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(check_channel_with_crty(1, 0), 0); }), "");
}

// Nothing is written, or what is written stays.
TEST_F(WiFi, PackageOrRestartThatFails) {
    const struct {
        const char *verb;
        json arguments;
        bool readable, written;
        size_t restarts;
    } cases[] = {{"fault", {{"service", "etc"}, {"read_only", true}}, true},
                 {"fault", {{"service", "etc"}, {"full", true}}, true},
                 {"uci", {{"package", "wireless"}}},
                 {"uci", {{"package", "wireless"}, {"text", "config wifi-device 'AP0_2G\n"}}},
                 {"uci", {{"package", "wireless"}, {"text", "\nconfig other 'x'\n"}}},
                 {"fault", {{"service", "mwlan"}, {"exit", 1}}, true, true, std::size(settings)},
                 {"fault", {{"service", "mwlan"}, {"exit", 255}}, true, true, std::size(settings)},
                 {"fault", {{"service", "mwlan"}, {"signal", 9}}, true, true, std::size(settings)},
                 {"fault", {{"service", "mwlan"}, {"stop", true}}, true, true}};
    for (const auto &test : cases) {
        SCOPED_TRACE(test.arguments.dump());
        sim::call(test.verb, test.arguments);
        for (const Setting &one : settings) {
            // Without a mode to read, there is none that could be told a bandwidth.
            const std::string end =
                !test.readable && one.get == Tavrik_Get_Band
                    ? line("Tavrik_Get_Netmode", "get value is faild")
                    : line(one.function, test.written ? "wifi system cmd faild " : "set value is faild");
            const std::string bytes = package_bytes(), log = log_of([&] { EXPECT_EQ(one.change(), -1); });
            EXPECT_EQ(log.substr(log.size() - std::min(log.size(), end.size())), end);
            EXPECT_EQ(package_bytes() != bytes, test.written);
            if (!one.get)
                continue;
            // Without a section, nothing is on.
            const bool good = test.readable || (one.get == Tavrik_Get_WiFi_Mode && read_file(file)[1] == 'c');
            int value = -77;
            EXPECT_EQ(log_of([&] { EXPECT_EQ(one.get(&value, 0, one.band), good ? 0 : -1); }),
                      line(std::string(one.function).replace(7, 1, "G"), good ? "" : "get value is faild"));
            EXPECT_EQ(value == -77, !good);
        }
        EXPECT_EQ(recorded("program"), restarted(test.restarts));
        sim::call("reset");
    }
    // The host has thrown the status away.
    sim::call("fault", {{"service", "mwlan"}, {"exit", 1}});
    const auto before = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 0), 0);
    signal(SIGCHLD, before);
}

// A restart that lasts is waited for. It holds up nobody who reads or writes meanwhile, the service least of all.
TEST_F(WiFi, HoldsNothingDuringTheRestart) {
    const std::string service = "/etc/init.d/mwlan", script = read_file(service);
    write_file(service, "#!/bin/sh\nuci set wireless.AP0_2G.seen=\"$(uci get wireless.AP0_2G_if.ssid)\" && uci commit\n"
                        "touch /tmp/restarting\nuntil [ -e /tmp/go ]; do sleep 0.01; done\n");
    std::thread slow([] {
        EXPECT_EQ(Tavrik_Set_SSID("slow", 0, 0), 0);
        EXPECT_EQ(access("/tmp/go", F_OK), 0);
    });
    while (access("/tmp/restarting", F_OK))
        usleep(5000);
    int channel = -1;
    EXPECT_EQ(Tavrik_Get_Channel(&channel, 0, 1), 0);
    shell("printf '#!/bin/sh\n' >/tmp/mwlan; chmod 755 /tmp/mwlan; mv /tmp/mwlan " + service);
    EXPECT_EQ(Tavrik_Set_Bcast(1, 0, 1), 0);
    write_file("/tmp/go", "");
    slow.join();
    EXPECT_EQ(options()["AP0_2G.seen"], "'slow'");
    EXPECT_EQ(options()["AP0_5G_if.hidden"], "'1'");
    write_file(service, script);
}

} // namespace

// What sentences become, and that neither how they are cut nor what is garbled changes it.
#include "gnss/nmea.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

std::string sentence(const std::string &body) {
    unsigned sum = 0;
    for (char byte : body)
        sum ^= uint8_t(byte);
    char tail[6];
    snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return "$" + body + tail;
}

std::string sentences(const Texts &bodies) {
    std::string text;
    for (const std::string &body : bodies)
        text += sentence(body);
    return text;
}

// The members that are known, behind the letter of their bit; what is not known has to be 0.
std::string describe(const Tavrik_GnssData &record) {
    Tavrik_GnssData rest = record;
    std::string text;
    const auto take = [&](auto &member) {
        const long long value = member;
        memset(&member, 0, sizeof member);
        return std::to_string(value);
    };
    const auto list = [&](uint8_t(&counts)[8]) {
        std::string all;
        for (uint8_t &count : counts)
            all += (all.empty() ? "" : ",") + take(count);
        return "[" + all + "]";
    };
    const auto known = [&](uint32_t bit, const char *letter) {
        if (!(record.known & bit))
            return false;
        rest.known &= ~bit;
        text += (text.empty() ? "" : " ") + std::string(letter);
        return true;
    };
    if (known(TAVRIK_GNSS_KNOWN_FIX, "F"))
        text += take(rest.fix_type);
    if (known(TAVRIK_GNSS_KNOWN_TIME, "T"))
        text += take(rest.hour) + ":" + take(rest.min) + ":" + take(rest.sec);
    if (known(TAVRIK_GNSS_KNOWN_DATE, "D"))
        text += take(rest.year) + "-" + take(rest.month) + "-" + take(rest.day);
    if (!(~record.known & (TAVRIK_GNSS_KNOWN_TIME | TAVRIK_GNSS_KNOWN_DATE)))
        text += "=" + take(rest.utc_ms);
    if (known(TAVRIK_GNSS_KNOWN_POSITION, "P"))
        text += take(rest.lat) + "," + take(rest.lon);
    if (known(TAVRIK_GNSS_KNOWN_ALTITUDE, "A"))
        text += take(rest.alt) + "," + take(rest.geoid);
    if (known(TAVRIK_GNSS_KNOWN_SPEED, "S"))
        text += take(rest.speed);
    if (known(TAVRIK_GNSS_KNOWN_COURSE, "C"))
        text += take(rest.course);
    if (known(TAVRIK_GNSS_KNOWN_QUALITY, "Q"))
        text += take(rest.quality);
    if (known(TAVRIK_GNSS_KNOWN_MODE, "M"))
        text += char(std::stoi(take(rest.mode)));
    if (known(TAVRIK_GNSS_KNOWN_DOP, "O"))
        text += take(rest.pdop) + "," + take(rest.hdop) + "," + take(rest.vdop);
    if (known(TAVRIK_GNSS_KNOWN_USED, "U"))
        text += take(rest.used) + list(rest.used_by);
    if (known(TAVRIK_GNSS_KNOWN_VIEW, "V")) {
        text += take(rest.in_view) + list(rest.view_by);
        const int count = std::stoi(take(rest.sat_count));
        for (int i = 0; i < count; i++) {
            Tavrik_GnssSatellite &satellite = rest.sats[i];
            text += " " + take(satellite.constellation) + ":" + take(satellite.id) + "/" + take(satellite.elevation) +
                    "/" + take(satellite.azimuth) + "/" + take(satellite.cn0) +
                    (take(satellite.used) == "1" ? "*" : "");
        }
    }
    Tavrik_GnssData nothing = {};
    nothing.size = 896;
    nothing.mono_ms = record.mono_ms;
    if (memcmp(&rest, &nothing, sizeof rest))
        text += " AND MORE";
    return text;
}

// A reader, and what it told: sentences as they are, records as "@MS known members".
class Nmea : public testing::Test {
  protected:
    void SetUp() override { start(); }
    void start() {
        reader_->start({[](void *self, const char *text, size_t length, int64_t mono_ms) {
                            EXPECT_EQ(strlen(text), length);
                            static_cast<Nmea *>(self)->told_.push_back(std::to_string(mono_ms) + text);
                        },
                        [](void *self, const Tavrik_GnssData &record) {
                            static_cast<Nmea *>(self)->told_.push_back("@" + std::to_string(record.mono_ms) + " " +
                                                                       describe(record));
                        },
                        this});
        told_.clear();
    }
    void take(const std::string &bytes, int64_t ms = 0) {
        const std::vector<char> exact(bytes.begin(), bytes.end()); // so that a byte too far is seen
        reader_->take(exact.data(), exact.size(), ms);
    }
    Texts records() const {
        Texts records;
        for (const std::string &text : told_)
            if (text[0] == '@')
                records.push_back(text.substr(text.find(' ') + 1));
        return records;
    }
    // Of a fresh reader, its records.
    Texts records_of(const Texts &bodies) {
        start();
        take(sentences(bodies));
        reader_->silence();
        return records();
    }

    // Garbage, where a constructor would be missed.
    std::unique_ptr<tavrik::NmeaReader> reader_{
        new (memset(::operator new(sizeof(tavrik::NmeaReader)), 0xA5, sizeof(tavrik::NmeaReader))) tavrik::NmeaReader};
    Texts told_;
};

const char kRmc[] = "GPRMC,123519.25,A,4807.0382145,N,01131.0001728,W,022.4,084.405,230394,003.1,W,A,V";
const char kGga[] = "GNGGA,123519.25,4807.0382145,S,01131.0001728,E,4,08,0.9,545.4395,M,-46.9,M,1.5,0120";
const char kVtg[] = "GPVTG,054.7,T,034.4,M,005.5,N,010.2,K,A";
const char kGsa[] = "GNGSA,A,3,04,05,33,65,,,,,,,,,2.5,1.3,2.1";
const char kGsv[] = "GPGSV,1,1,03,04,,,,05,90,359,46,33,-05,000,00";

TEST_F(Nmea, records) {
    const struct {
        Texts bodies;
        std::string record;
    } cases[] = {
        {{kRmc}, "T12:35:19 D1994-3-23=764426119250 P481173036,-115166695 S11524 C8441 MA"},
        {{kGga}, "T12:35:19 P-481173036,115166695 A545440,-46900 Q4 U8[0,0,0,0,0,0,0,0]"},
        {{kVtg}, "S2829 C5470"},
        {{kGsa}, "F3 O250,130,210 U4[2,1,0,0,0,0,1,0]"},
        {{kGsv}, "V3[2,0,0,0,0,0,1,0] 0:4/-128/65535/0 0:5/90/359/46 6:33/-5/0/0"},
        {{kRmc, kVtg, kGga, kGsa, kGsv},
         "F3 T12:35:19 D1994-3-23=764426119250 P-481173036,115166695 A545440,-46900 S2829 C5470 Q4 MA O250,130,210 "
         "U8[2,1,0,0,0,0,1,0] V3[2,0,0,0,0,0,1,0] 0:4/-128/65535/0* 0:5/90/359/46* 6:33/-5/0/0*"},
        // what a receiver without a fix tells; a position that is not valid is none
        {{"GPRMC,,V,,,,,,,,,,N"}, "MN"},
        {{"GPRMC,,V,,,,,,,,,"}, ""},
        {{"GPRMC,000000,V,4807.0,N,01131.0,E,1.0,2.0,311279,,,N"}, "T0:0:0 D2079-12-31=3471206400000 MN"},
        {{"GPGGA,,,,,,0,00,99.99,,,,,,"}, "Q0 U0[0,0,0,0,0,0,0,0]"},
        {{"GPGGA,010203,4807.0,N,01131.0,E,0,,,1.0,M,,M,,"}, "T1:2:3 Q0"},
        {{"GPGGA,,,,,,,,,,,,,,"}, ""},
        {{"GPGSA,A,1,,,,,,,,,,,,,,,"}, "F1 U0[0,0,0,0,0,0,0,0]"},
        {{"GPVTG,,T,,M,,N,,K,N"}, ""},
        {{"GPVTG,1.0,T,,M,1.0,N,2.0,K,N"}, ""},
        {{"GPGSV,1,1,00"}, "V0[0,0,0,0,0,0,0,0]"},
        {{"GPGSV,1,1,00,8"}, "V0[0,0,0,0,0,0,0,0]"},
        // limits, signs, rounding
        {{"GPRMC,235960.999,A,9000.000,S,18000.000,W,0,360,311216,,"},
         "T23:59:60 D2016-12-31=1483228800999 P-900000000,-1800000000 S0 C0"},
        {{"GPRMC,120000,A,0000.0000030,N,00000.0000029,W,100000,359.994,010180,,"},
         "T12:0:0 D1980-1-1=315576000000 P1,0 S51444444 C35999"},
        {{"GPRMC,120000,A,5959.9999999999999,N,00000,E,0.00097,359.995,290200,,"},
         "T12:0:0 D2000-2-29=951825600000 P600000000,0 S0 C0"},
        {{"GPVTG,,T,,M,,N,36.0054,K,D"}, "S10002"},
        {{"GPVTG,,T,,M,,N,0.0018,K"}, "S1"},
        {{"GPGGA,,0000.0,S,00000.0,W,1,255,655.35,-0.0005,M,0.00049,M,,"}, "P0,0 A-1,0 Q1 U255[0,0,0,0,0,0,0,0]"},
        {{"GPGGA,,,,,,8,12,,2000000,M,-2000000,M,,"}, "A2000000000,-2000000000 Q8 U12[0,0,0,0,0,0,0,0]"},
        {{"GPGSA,M,2,1,01,999,,,,,,,,,,655.35,.5,1."}, "F2 O65535,50,100 U2[1,0,0,0,0,0,0,1]"},
        // constellations: the talker, the system, the number
        {{"GNGSA,A,1,01,02,,,,,,,,,,,,,"}, "F1 U2[2,0,0,0,0,0,0,0]"},
        {{"GNGSA,A,3,01,02,33,,,,,,,,,,,,,1", "GNGSA,A,1,01,02,40,,,,,,,,,,,,,2", "GNGSA,A,1,01,64,,,,,,,,,,,,,,3",
          "GNGSA,A,1,01,,,,,,,,,,,,,,,4", "GNGSA,A,1,01,,,,,,,,,,,,,,,5", "GNGSA,A,1,01,,,,,,,,,,,,,,,6"},
         "F3 U11[2,2,2,1,1,1,2,0]"},
        {{"GNGSA,A,3,32,64,65,99,100,120,158,193,200,201,263,336,,,", "GNGSA,A,3,401,463,464,,,,,,,,,,,,,F"},
         "F3 U15[1,2,1,4,2,0,3,2]"},
        {{"GLGSA,A,3,01,65,33,,,,,,,,,,,,,1", "GAGSA,A,3,301,,,,,,,,,,,,,,", "GBGSA,A,3,201,,,,,,,,,,,,,,",
          "BDGSA,A,3,1,,,,,,,,,,,,,,", "GQGSA,A,3,193,,,,,,,,,,,,,,", "QZGSA,A,3,1,,,,,,,,,,,,,,",
          "GIGSA,A,3,1,,,,,,,,,,,,,,", "XXGSA,A,3,7,,,,,,,,,,,,,,"},
         "F3 U10[1,2,1,2,2,1,1,0]"},
        // one that several signals show is one; used is what is used of the same constellation
        {{"GPGSV,1,1,02,04,10,020,30,05,,,40,1", "GPGSV,1,1,02,04,10,020,35,05,1,2,20,8", "GAGSV,1,1,01,04,1,2,,7",
          "GAGSA,A,3,04,,,,,,,,,,,,,,"},
         "F3 U1[0,0,1,0,0,0,0,0] V3[2,0,1,0,0,0,0,0] 0:4/10/20/35 0:5/-128/65535/40 2:4/1/2/0*"},
    };
    for (const auto &expected : cases)
        EXPECT_EQ(records_of(expected.bodies), Texts{expected.record}) << expected.bodies[0];
}

// A sentence whose checksum is right goes on as it came, and counts for nothing unless each of its fields is right.
TEST_F(Nmea, refused) {
    const struct {
        const char *body, *changes; // field numbers, and what is put in their place
    } cases[] = {
        {kRmc,
         "1=12351 1=1235199 1=240000 1=126000 1=120061 1=1235x9 1=-00000 1=123519.x 1=123519, 2= 2=B 2=AA 3= 3=807.0 "
         "3=14807.0 3=9000.0001 3=4860.0 3=-807.0 3=4807.0.0 3=+4807.0 4= 4=E 5= 5=18000.001 5=1131.00 6= 6=N 7=-1 "
         "7=1e3 "
         "7=100001 7=. 7=0x1 8=360.01 8=-0.1 8=9999999999 9=310494 9=290201 9=000194 9=011394 9=010094 9=10194 "
         "9=0101.4 10=180.1 11=N 12=X 12=AA 13=X 13=V, 0=PXRMC 0=GPRMB 0=GPRM 0=GGPRMC 0=gprmc 0=RMC"},
        {kGga,
         "1=246060 2=4899.0 6=9 6=-1 6=1.0 7=256 7=-1 8=655.36 9=2000000.001 9=--1 9=1,5 10=F 11=x 12=F 13=-1 14=ABCD "
         "14=0120,"},
        {kVtg, "1=361 2=M 3=400 4=T 5=-5 6=K 7=200000.001 8=N 9=? 9=A,"},
        {kGsa, "1=B 2=0 2=4 3=0 3=1000 3=-4 14=1.5 15=655.36 16=-1 17=x 17=2.1,G 17=2.1,11 17=2.1,1,"},
        {kGsv,
         "1=0 1= 1=17 2=0 2=2 2= 3=256 3=-1 4=0 4=1000 4=4, 5=91 5=-91 6=360 7=100 7=-1 15=00,G 15=00,1,2 15=00,1,2,3 "
         "15=00,1,,,,2,,, 15=0000000000"},
        // fewer fields than any form has, and far more
        {"GPRMC,123519,A,4807.0,N,01131.0,E,022.4,084.4,230394,003.1", "0=GPRMC"},
        {"GPRMC,123519,A,4807.0,N,,,022.4,084.4,230394,,", "0=GPRMC"},
        {"GPVTG,054.7,034.4,005.5,010.2", "0=GPVTG"},
        {"GPGSV", "0=GPGSV 0=GPGSV,1 0=GPGSV,1,1 0=GPGSV,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,"},
    };
    for (const auto &kind : cases) {
        std::istringstream changes(kind.changes);
        for (std::string change; changes >> change;) {
            const std::string whole = kind.body;
            size_t at = 0;
            for (int field = std::stoi(change); field > 0; field--)
                at = whole.find(',', at) + 1;
            const std::string body = whole.substr(0, at) + change.substr(change.find('=') + 1) +
                                     whole.substr(std::min(whole.find(',', at), whole.size()));
            start();
            take(sentence(body), 7);
            EXPECT_FALSE(reader_->epoch_open()) << body;
            reader_->silence();
            EXPECT_EQ(told_, Texts{"7" + sentence(body).substr(0, body.size() + 4)});
        }
    }
}

TEST_F(Nmea, framing) {
    using namespace std::string_literals;
    const std::string good = sentence("GPTXT,hello"), body = good.substr(0, good.size() - 2);
    const std::string most = sentence(std::string(249, 'x')), more = sentence(std::string(250, 'x'));
    const struct {
        std::string bytes;
        Texts told;
    } cases[] = {
        {good, {body}},
        {body + "\n", {body}},
        {body + "\r", {body}},
        {"noise" + good + "\0\xFF"s + good, {body, body}},
        {"$GPTXT,cut" + good, {body}},
        {"$" + good, {body}},
        {most, {most.substr(0, 253)}},
        {more + good, {body}},
        {std::string(100000, '$') + "\r\n" + good, {body}},
        {"$PMTK010,001*2E\r\n", {"$PMTK010,001*2E"}},
        {"$OK*04\r\n$gJ*2d\r\n$g1*56\r\n$gJ*2D\r\n", {"$OK*04", "$gJ*2d", "$g1*56", "$gJ*2D"}},
        {"$1g*56\r\n$J*4A\r\n$g,*4B\r\n$*00\r\n", {}},
        {body, {}},
        {body + " \r\n", {}},
        {body + "*00\r\n", {}},
        {body.substr(0, body.size() - 1) + "\r\n", {}},
        {body.substr(0, body.size() - 3) + "\r\n", {}},
        {body.substr(0, body.size() - 1) + "G\r\n", {}},
        {"$GPTXT,\t*" + sentence("GPTXT,\t").substr(9), {}},
        {sentence("GPTXT,\x80") + sentence("GPTXT,\x7F") + sentence("GPTXT,a*b"), {}},
        {"$GPTXT,\0*"s + sentence("GPTXT,\0"s).substr(9), {}},
        {"!AIVDM,1*2E\r\n$\r\n$*\r\n\r\n", {}},
    };
    for (const auto &expected : cases) {
        start();
        take(expected.bytes, 5);
        Texts told;
        for (const std::string &text : told_)
            told.push_back(text.substr(1));
        EXPECT_EQ(told, expected.told) << expected.bytes.substr(0, 300);
    }
}

TEST_F(Nmea, epochs) {
    const auto gga = [](const std::string &time) { return sentence("GPGGA," + time + ",,,,,0,00,,,,,,,"); };
    const std::string void_rmc = sentence("GPRMC,,V,,,,,,,,,,N"), dop = sentence("GPGSA,A,1,,,,,,,,,,,,,1,1,1");
    const std::string bare = "Q0 U0[0,0,0,0,0,0,0,0]";
    reader_->silence();
    take(gga("010203"), 1000);
    EXPECT_TRUE(reader_->epoch_open());
    take(sentence("GPTXT,x") + dop + gga("010203.000") + void_rmc, 1001); // all of one moment
    EXPECT_EQ(records(), Texts{});
    take(gga("010203.1"), 1100); // goes out before the sentence that ends it
    ASSERT_EQ(told_.size(), 7u);
    EXPECT_EQ(told_[5], "@1000 F1 T1:2:3 " + bare.substr(0, 3) + "MN O100,100,100 " + bare.substr(3));
    EXPECT_EQ(told_[6].substr(0, 5), "1100$");
    // silence ends it as well, and nothing goes out twice
    reader_->silence();
    EXPECT_EQ(told_.back(), "@1100 T1:2:3 " + bare);
    EXPECT_FALSE(reader_->epoch_open());
    reader_->silence();
    EXPECT_EQ(told_.size(), 8u);
    // sentences without a time wait for the one that has it, and a sentence goes on after silence
    take(dop.substr(0, 10), 2000);
    EXPECT_FALSE(reader_->epoch_open());
    reader_->silence();
    take(dop.substr(10) + gga("010203.2"), 2100);
    take(sentence("GPTXT,x"), 2200);
    EXPECT_EQ(told_.size(), 11u);
    reader_->silence();
    EXPECT_EQ(told_.back(), "@2000 F1 T1:2:3 Q0 O100,100,100 U0[0,0,0,0,0,0,0,0]");
    // a list is as old as its first sentence; what was used in one moment is not in the next
    take(sentence("GPGSV,2,1,01"), 3000);
    take(sentence("GPGSV,2,2,01,04,,,"), 3001);
    take(sentences({"GPGSA,A,3,04,,,,,,,,,,,,,,", "GPGGA,,,,,,0,8,,,,,,,"}), 3002);
    reader_->silence();
    EXPECT_EQ(told_.back(), "@3000 F3 Q0 U8[1,0,0,0,0,0,0,0] V1[1,0,0,0,0,0,0,0] 0:4/-128/65535/0*");
    take(dop, 3003);
    reader_->silence();
    EXPECT_EQ(told_.back(), "@3003 F1 O100,100,100 U0[0,0,0,0,0,0,0,0] V1[1,0,0,0,0,0,0,0] 0:4/-128/65535/0");
    // begun anew, it knows nothing of before
    take(gga("010203.1") + dop.substr(0, 20));
    start();
    take(dop.substr(20));
    reader_->silence();
    EXPECT_EQ(told_, Texts{});
}

TEST_F(Nmea, lists_in_view) {
    const std::string one = "V1[1,0,0,0,0,0,0,0] 0:1/2/3/4", none = "no record";
    const char kFirst[] = "GPGSV,2,1,05,11,1,1,11,12,2,2,12,13,3,3,13,14,4,4,14", kSecond[] = "GPGSV,2,2,05,15,5,5,15";
    const std::string five = "V5[5,0,0,0,0,0,0,0] 0:11/1/1/11 0:12/2/2/12 0:13/3/3/13 0:14/4/4/14 0:15/5/5/15";
    const struct {
        Texts bodies; // behind a list of one satellite
        std::string record;
    } cases[] = {
        {{kFirst, kSecond}, five},
        {{kFirst, "GPRMC,,V,,,,,,,,,,N", kSecond}, "MN " + five},
        {{kFirst, kFirst, kSecond}, five},
        {{kFirst}, none},
        {{kSecond}, none},
        {{kSecond, kFirst}, none},
        {{kFirst, "GPGSV,2,2,05,15,5,5,15,1"}, none},        // of another signal
        {{kFirst, "GLGSV,2,2,05,15,5,5,15", kSecond}, none}, // of another talker
        {{kFirst, "GPGSV,2,2,06,15,5,5,15"}, none},          // of another list
        {{"GPGSV,3,1,05,11,1,1,11", "GPGSV,2,2,05,15,5,5,15"}, none},
        {{"GPGSV,3,1,05,11,1,1,11", "GPGSV,3,3,05,15,5,5,15"}, none},
        {{"GPGSV,1,1,00"}, "V0[0,0,0,0,0,0,0,0]"},
        {{"GLGSV,1,1,01,65,1,1,1"}, "V2[1,1,0,0,0,0,0,0] 0:1/2/3/4 1:65/1/1/1"},
        {{"GPGSV,1,1,02,9,1,1,1,,,,"}, "V1[1,0,0,0,0,0,0,0] 0:9/1/1/1"},
    };
    for (const auto &expected : cases) {
        start();
        take(sentence("GPGSV,1,1,01,1,2,3,4"));
        reader_->silence();
        EXPECT_EQ(records(), Texts{one});
        told_.clear();
        take(sentences(expected.bodies));
        reader_->silence();
        EXPECT_EQ(records(), expected.record == none ? Texts{} : Texts{expected.record}) << expected.bodies[0];
    }
}

// A list is in each record until another takes its place, or nobody has renewed it for 15 seconds.
TEST_F(Nmea, lists_last) {
    const std::string gps = sentence("GPGSV,1,1,01,1,2,3,4"), galileo = sentence("GAGSV,1,1,01,1,2,3,4");
    const std::string dop = sentence("GPVTG,,T,,M,1.0,N,,K");
    const struct {
        int64_t ms;
        std::string bytes, record;
    } steps[] = {
        {0, gps, "V1[1,0,0,0,0,0,0,0] 0:1/2/3/4"},
        {6000, galileo, "V2[1,0,1,0,0,0,0,0] 0:1/2/3/4 2:1/2/3/4"},
        {15000, dop, "S514 V2[1,0,1,0,0,0,0,0] 0:1/2/3/4 2:1/2/3/4"},
        {15001, dop, "S514 V1[0,0,1,0,0,0,0,0] 2:1/2/3/4"},
        {21001, dop, "S514"},
        {22000, gps, "V1[1,0,0,0,0,0,0,0] 0:1/2/3/4"},
    };
    for (const auto &step : steps) {
        told_.clear();
        take(step.bytes, step.ms + (int64_t(1) << 32));
        reader_->silence();
        EXPECT_EQ(records(), Texts{step.record}) << step.ms;
    }
}

// Beyond the room of a record they are counted, and beyond that of the lists left out.
TEST_F(Nmea, many_satellites) {
    Texts bodies;
    for (const char *talker : {"GP", "GL", "GA"})
        for (int number = 1; number <= 16; number++) {
            bodies.push_back(std::string(talker) + "GSV,16," + std::to_string(number) + ",64");
            for (int i = 0; i < 4; i++)
                bodies.back() += "," + std::to_string(300 + 4 * number + i) + ",1,2,3";
        }
    Tavrik_GnssData got = {};
    reader_->start(
        {[](void *, const char *, size_t, int64_t) {},
         [](void *context, const Tavrik_GnssData &record) { *static_cast<Tavrik_GnssData *>(context) = record; },
         &got});
    take(sentences(bodies));
    reader_->silence();
    EXPECT_EQ(got.in_view, 128);
    EXPECT_EQ(got.view_by[TAVRIK_GNSS_GLONASS], 64);
    EXPECT_EQ(got.view_by[TAVRIK_GNSS_GALILEO], 33); // those by range among the numbers of GPS
    EXPECT_EQ(got.sat_count, 64);
    EXPECT_EQ(got.sats[63].id, 367);
    const std::string galileo = sentences(Texts(bodies.end() - 16, bodies.end()));
    take(galileo, 15001); // in the place of those that are out of date
    reader_->silence();
    EXPECT_EQ(got.in_view, 64);
    EXPECT_EQ(got.view_by[TAVRIK_GNSS_GALILEO], 64);
    bodies.clear();
    for (int first = 1; first + 11 < 1000; first += 12) {
        bodies.push_back("GAGSA,A,3");
        for (int id = first; id < first + 12; id++)
            bodies.back() += "," + std::to_string(id);
        bodies.back() += ",,,";
    }
    take(sentences(bodies));
    reader_->silence();
    EXPECT_EQ(got.used, 255);
    EXPECT_EQ(got.used_by[TAVRIK_GNSS_GALILEO], 255);
}

// A drive of three moments with all that may come between.
const std::string &track() {
    static const std::string text = [] {
        std::string all = "\r\nnoise\xFF$GPRMC,broken";
        for (const char *time : {"235959.0", "000000.0", "000000.5"})
            all += sentence("GNRMC," + std::string(time) + ",A,4807.038,N,01131.000,E,022.4,084.4,230394,,,A,V") +
                   sentence("GNGGA," + std::string(time) + ",4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,") +
                   sentence("GPGSV,2,1,05,11,1,1,11,12,2,2,12,13,3,3,13,14,4,4,14,1") + "$GPGSV,2,2,05,15*00\r\n" +
                   sentence("GPTXT,$") + sentence("GPGSV,2,2,05,15,5,5,15,1") + sentence(kGsa) +
                   sentence("GPVTG,,,,,,,,,") + sentence("PQTMX,1") + sentence("GLGSV,1,1,01,65,1,1,1,1") + "$" +
                   std::string(260, 'x') + "\r\n";
        return all;
    }();
    return text;
}

TEST_F(Nmea, cuts) {
    const std::string &bytes = track();
    take(bytes);
    reader_->silence();
    const Texts whole = told_;
    EXPECT_EQ(records().size(), 3u);
    EXPECT_EQ(whole.size(), 3u + 3 * 8);
    for (size_t cut = 0; cut <= bytes.size(); cut++) {
        start();
        take(bytes.substr(0, cut));
        take(bytes.substr(cut));
        reader_->silence();
        ASSERT_EQ(told_, whole) << cut;
    }
    start();
    for (char byte : bytes)
        take({byte});
    reader_->silence();
    EXPECT_EQ(told_, whole);
}

// In the middle of a moment and of a list, a sentence of which one byte has changed: as if it were not there.
TEST_F(Nmea, corruption) {
    const std::string before =
        sentences({"GPGGA,010203,,,,,0,00,,,,,,,", "GPGSV,2,1,05,11,1,1,11,12,2,2,12,13,3,3,13,14,4,4,14"});
    const std::string after = sentences({"GPGSV,2,2,05,15,5,5,15", "GPGGA,010204,,,,,0,00,,,,,,,"});
    take(before + after);
    reader_->silence();
    const Texts whole = told_;
    ASSERT_EQ(records().size(), 2u);
    for (const char *body : {kRmc, kGga, kVtg, kGsa, kGsv, "GPGSV,2,2,05,15,7,7,17", "GPTXT,x"}) {
        const std::string good = sentence(body);
        const size_t star = good.size() - 5;
        for (size_t at = 0; at < good.size() - 2; at++)
            for (int byte = 0; byte < 256; byte++) {
                if (byte == uint8_t(good[at]) || (at > star && byte == tolower(good[at])))
                    continue; // it fits still
                std::string bad = good;
                bad[at] = char(byte);
                start();
                take(before + bad + after);
                reader_->silence();
                ASSERT_EQ(told_, whole) << body << " " << at << " " << byte;
            }
    }
}

} // namespace

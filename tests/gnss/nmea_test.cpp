// What sentences become, and that neither how they are cut nor what is garbled changes it.
#include "gnss/nmea.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "sentence.h"

namespace {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

// " >", and the members that are known behind the letter of their bit; others that are not 0 behind a small letter.
// Zeros at the end of a list are left out.
std::string shown(const Tavrik_GnssData &r) {
    const auto list = [&](char letter, std::vector<int64_t> values, const uint8_t *by = nullptr) {
        const size_t bit = std::string("FTDPASCQMOUV").find(letter);
        const bool known = bit != std::string::npos && r.known >> bit & 1;
        if (by)
            values.insert(values.end(), by, by + TAVRIK_GNSS_CONSTELLATIONS);
        while (values.size() > 1 && !values.back())
            values.pop_back();
        std::string text;
        for (const int64_t value : values)
            text += "," + std::to_string(value);
        return !known && text == ",0" ? ""
                                      : " " + std::string(1, char(known ? letter : tolower(letter))) + text.substr(1);
    };
    std::string text = " >" + list('@', {r.mono_ms}) + list('F', {r.fix_type}) + list('T', {r.hour, r.min, r.sec}) +
                       list('D', {r.year, r.month, r.day}) + list('P', {r.lat, r.lon}) + list('A', {r.alt, r.geoid}) +
                       list('S', {r.speed}) + list('C', {r.course}) + list('Q', {r.quality}) + list('M', {r.mode}) +
                       list('O', {r.pdop, r.hdop, r.vdop}) + list('U', {r.used}, r.used_by) +
                       list('V', {r.in_view}, r.view_by) + list('=', {r.utc_ms}) +
                       list('!', {r.size - 896, r.kind, r.sentence_len, *r.sentence});
    for (const Tavrik_GnssSatellite *at = r.sats; at < r.sats + r.sat_count; at++)
        text += " " + std::to_string(at->constellation) + ":" + std::to_string(at->id) + "/" +
                std::to_string(at->elevation) + "/" + std::to_string(at->azimuth) + "/" + std::to_string(at->cn0) +
                (at->used ? "*" : "");
    return text;
}

// What scenarios call by a name.
const std::map<std::string, std::string> kBodies = {
    {"RMC", "GPRMC,123519.25,A,4807.0382145,N,01131.0001728,W,022.4,084.405,230394,003.1,W,A,V"},
    {"GGA", "GNGGA,123519.25,4807.0382145,S,01131.0001728,E,4,08,0.9,545.4395,M,-46.9,M,1.5,0120"},
    {"VTG", "GPVTG,054.7,T,034.4,M,005.5,N,010.2,K,A"},
    {"GSA", "GNGSA,A,3,04,05,33,65,,,,,,,,,2.5,1.3,2.1"},
    {"GSV", "GPGSV,1,1,03,04,,,,05,90,359,46,33,-05,000,00"},
    {"void", "GPRMC,,V,,,,,,,,,,N"},
    {"dop", "GPGSA,A,1,,,,,,,,,,,,,1,1,1"},
    {"one", "GPGSV,1,1,01,1,2,3,4"},
    {"first", "GPGSV,2,1,05,11,1,1,11,12,2,2,12,13,3,3,13,14,4,4,14"},
    {"second", "GPGSV,2,2,05,15,5,5,15"},
};

std::string whole(const std::string &name) {
    return sentence(kBodies.count(name) ? kBodies.at(name) : name);
}

class Nmea : public testing::Test {
  protected:
    Nmea() { start(); }
    void start() {
        reader_->start({[](void *self, const char *text, size_t length, int64_t) {
                            EXPECT_EQ(strlen(text), length);
                            static_cast<Nmea *>(self)->told_ += text;
                        },
                        [](void *self, const Tavrik_GnssData &record) {
                            static_cast<Nmea *>(self)->told_ += shown(record);
                            static_cast<Nmea *>(self)->records_ += shown(record);
                        },
                        this});
        told_ = records_ = "";
    }
    void take(const std::string &bytes, int64_t ms = 0) {
        const std::vector<char> exact(bytes.begin(), bytes.end()); // so that a byte too far is seen
        reader_->take(exact.data(), exact.size(), ms);
    }
    // All that a new reader tells about them, and silence behind.
    std::string told_of(const Texts &pieces) {
        start();
        for (const std::string &piece : pieces)
            take(piece);
        reader_->silence();
        return told_;
    }
    // Lines "[+]MS SENTENCE;SENTENCE… [> RECORD]…": what comes at a time, to a new reader unless there is a "+", and
    // the records when silence has followed.
    void play(const char *scenario) {
        std::istringstream lines(scenario);
        for (std::string line; std::getline(lines >> std::ws, line);) {
            if (line[0] != '+')
                start();
            const size_t records = line.find(" >");
            std::istringstream bodies(line.substr(0, records));
            int64_t ms;
            bodies >> ms >> std::ws;
            for (std::string body; std::getline(bodies, body, ';');)
                take(whole(body), ms);
            if (records == line.npos)
                continue;
            reader_->silence();
            EXPECT_EQ(records_, line.substr(records) == " > none" ? "" : line.substr(records)) << line;
            records_ = "";
        }
    }

    // Garbage, where a constructor would be missed.
    std::unique_ptr<tavrik::NmeaReader> reader_{
        new (memset(::operator new(sizeof(tavrik::NmeaReader)), 0xA5, sizeof(tavrik::NmeaReader))) tavrik::NmeaReader};
    std::string told_, records_;
};

TEST_F(Nmea, records) {
    play(R"(
        0 RMC > T12,35,19 D1994,3,23 P481173036,-115166695 S11524 C8441 M65 =764426119250
        0 GGA > T12,35,19 P-481173036,115166695 A545440,-46900 Q4 U8
        0 VTG > S2829 C5470
        0 GSA > F3 O250,130,210 U4,2,1,0,0,0,0,1
        0 GSV > V3,2,0,0,0,0,0,1 0:4/-128/65535/0 0:5/90/359/46 6:33/-5/0/0
        0 RMC;VTG;GGA > T12,35,19 D1994,3,23 P-481173036,115166695 A545440,-46900 S2829 C5470 Q4 M65 U8 =764426119250
        0 GGA;GSA > F3 T12,35,19 P-481173036,115166695 A545440,-46900 Q4 O250,130,210 U8,2,1,0,0,0,0,1
        0 GSA;GSV > F3 O250,130,210 U4,2,1,0,0,0,0,1 V3,2,0,0,0,0,0,1 0:4/-128/65535/0* 0:5/90/359/46* 6:33/-5/0/0*
        0 void > M78
        0 GPRMC,,V,,,,,,,,, >
        0 GPRMC,000000,V,4807.0,N,01131.0,E,1.0,2.0,311279,,,N > T0 D2079,12,31 M78 =3471206400000
        0 GPGGA,,,,,,0,00,99.99,,,,,, > Q0 U0
        0 GPGGA,010203,4807.0,N,01131.0,E,0,,,1.0,M,,M,, > T1,2,3 Q0
        0 GPGGA,,,,,,,,,,,,,, >
        0 GPGSA,A,1,,,,,,,,,,,,,,, > F1 U0
        0 GPVTG,,T,,M,,N,,K,N >
        0 GPVTG,1.0,T,,M,1.0,N,2.0,K,N >
        0 GPGSV,1,1,00,8 > V0)");
    // limits, signs, rounding
    play(R"(
        0 GPRMC,235960.999,A,9000.000,S,18000.000,W,0,360,311216,,
        +0 > T23,59,60 D2016,12,31 P-900000000,-1800000000 S0 C0 =1483228800999
        0 GPRMC,120000,A,0000.0000030,N,00000.0000029,W,100000,359.994,010180,,
        +0 > T12 D1980,1,1 P1 S51444444 C35999 =315576000000
        0 GPRMC,120000,A,5959.9999999999999,N,00000,E,0.00097,359.995,290200,,
        +0 > T12 D2000,2,29 P600000000 S0 C0 =951825600000
        0 GPVTG,,T,,M,,N,36.0054,K,D > S10002
        0 GPVTG,,T,,M,,N,0.0018,K > S1
        0 GPGGA,,0000.0,S,00000.0,W,1,255,655.35,-0.0005,M,0.00049,M,, > P0 A-1 Q1 U255
        0 GPGGA,,,,,,8,12,,2000000,M,-2000000,M,, > A2000000000,-2000000000 Q8 U12
        0 GPGSA,M,2,1,01,999,,,,,,,,,,655.35,.5,1. > F2 O65535,50,100 U2,1,0,0,0,0,0,0,1)");
    // Constellations: by the talker, the system, the number. A satellite that several signals show is one.
    play(R"(
        0 GNGSA,A,3,01,02,33,,,,,,,,,,,,,1;GNGSA,A,1,01,02,40,,,,,,,,,,,,,2;GNGSA,A,1,01,64,,,,,,,,,,,,,,3
        +0 GNGSA,A,1,01,,,,,,,,,,,,,,,4;GNGSA,A,1,01,,,,,,,,,,,,,,,5;GNGSA,A,1,01,,,,,,,,,,,,,,,6
        +0 > F3 U11,2,2,2,1,1,1,2
        0 GNGSA,A,3,32,64,65,99,100,120,158,193,200,201,263,336,,,;GNGSA,A,3,401,463,464,,,,,,,,,,,,,F
        +0 > F3 U15,1,2,1,4,2,0,3,2
        0 GLGSA,A,3,01,65,33,,,,,,,,,,,,,1;GAGSA,A,3,301,,,,,,,,,,,,,,;GBGSA,A,3,201,,,,,,,,,,,,,,
        +0 BDGSA,A,3,1,,,,,,,,,,,,,,;GQGSA,A,3,193,,,,,,,,,,,,,,;QZGSA,A,3,1,,,,,,,,,,,,,,
        +0 GIGSA,A,3,1,,,,,,,,,,,,,,;XXGSA,A,3,7,,,,,,,,,,,,,, > F3 U10,1,2,1,2,2,1,1
        0 GPGSV,1,1,02,04,10,020,30,05,,,40,1;GPGSV,1,1,02,04,10,020,35,05,1,2,20,8
        +0 GAGSV,1,1,01,04,1,2,,7;GAGSA,A,3,04,,,,,,,,,,,,,,
        +0 > F3 U1,0,0,1 V3,2,0,1 0:4/10/20/35 0:5/-128/65535/40 2:4/1/2/0*)");
}

// They end at another time, or by silence. A list is as old as its first sentence; what was used in one moment is not
// in the next.
TEST_F(Nmea, epochs) {
    play(R"(
        1000 GPGGA,010203,,,,,0,00,,,,,,,
        +1001 GPTXT,x;dop;GPGGA,010203.000,,,,,0,00,,,,,,,;void
        +1100 GPGGA,010203.1,,,,,0,00,,,,,,, > @1000 F1 T1,2,3 Q0 M78 O100,100,100 U0 > @1100 T1,2,3 Q0 U0
        +1100 GPTXT,x > none
        +2000 dop
        +2001 GPGGA,010203.2,,,,,0,00,,,,,,, > @2000 F1 T1,2,3 Q0 O100,100,100 U0
        +3000 GPGSV,2,1,01
        +3001 GPGSV,2,2,01,04,,,
        +3002 GPGSA,A,3,04,,,,,,,,,,,,,,;GPGGA,,,,,,0,8,,,,,,, > @3000 F3 Q0 U8,1 V1,1 0:4/-128/65535/0*
        +3003 dop > @3003 F1 O100,100,100 U0 V1,1 0:4/-128/65535/0)");
    const std::string dop = whole("dop");
    take(dop.substr(0, 10), 4000);
    reader_->silence();
    take(dop.substr(10), 4100); // goes on after silence
    reader_->silence();
    EXPECT_EQ(records_.substr(0, 8), " > @4000");
    take(sentence("GPGGA,010203,,,,,0,00,,,,,,,") + dop.substr(0, 20));
    EXPECT_EQ(told_of({dop.substr(20)}), ""); // begun anew
}

TEST_F(Nmea, lists_in_view) {
    const std::string five = "V5,5 0:11/1/1/11 0:12/2/2/12 0:13/3/3/13 0:14/4/4/14 0:15/5/5/15";
    for (const std::string &rest :
         {"first;second > " + five, "first;void;second > M78 " + five, "first;first;second > " + five, "first > none"s,
          "second > none"s, "second;first > none"s, "first;GPGSV,2,2,05,15,5,5,15,1 > none"s,
          "first;GLGSV,2,2,05,15,5,5,15;second > none"s, "first;GPGSV,2,2,06,15,5,5,15 > none"s,
          "GPGSV,3,1,05,11,1,1,11;second > none"s, "GPGSV,3,1,05,11,1,1,11;GPGSV,3,3,05,15,5,5,15 > none"s,
          "GPGSV,1,1,00 > V0"s, "GLGSV,1,1,01,65,1,1,1 > V2,1,1 0:1/2/3/4 1:65/1/1/1"s,
          "GPGSV,1,1,02,9,1,1,1,,,, > V1,1 0:9/1/1/1"s})
        play(("0 one > V1,1 0:1/2/3/4\n+0 " + rest).c_str());
    // It is in each record until another takes its place, or nobody has renewed it for 15 seconds.
    play(R"(
        4294967296 one > @4294967296 V1,1 0:1/2/3/4
        +4294973296 GAGSV,1,1,01,1,2,3,4 > @4294973296 V2,1,0,1 0:1/2/3/4 2:1/2/3/4
        +4294982296 void > @4294982296 M78 V2,1,0,1 0:1/2/3/4 2:1/2/3/4
        +4294982297 void > @4294982297 M78 V1,0,0,1 2:1/2/3/4
        +4294988297 void > @4294988297 M78
        +4294989296 one > @4294989296 V1,1 0:1/2/3/4)");
}

// Beyond the room of a record they are counted, and beyond that of the lists left out.
TEST_F(Nmea, many_satellites) {
    const auto lists = [](const std::string &talker) {
        std::string all, list = talker + "GSV,16,";
        for (int id = 304; id < 368; id += 4) {
            std::string body = list + std::to_string(id / 4 - 75) + ",64";
            for (int i = 0; i < 4; i++)
                body += "," + std::to_string(id + i) + ",1,2,3";
            all += sentence(body);
        }
        return all;
    };
    take(lists("GP") + lists("GL") + lists("GA"));
    reader_->silence();
    EXPECT_EQ(records_.substr(0, 17), " > V128,0,64,33,0"); // 33 by range among the numbers of GPS
    EXPECT_EQ(records_.substr(records_.rfind(' ')), " 7:367/1/2/3");
    EXPECT_EQ(std::count(records_.begin(), records_.end(), '/'), 64 * 3);
    records_ = "";
    take(lists("GA"), 15001); // in the place of those that are out of date
    reader_->silence();
    EXPECT_EQ(records_.substr(0, 20), " > @15001 V64,0,0,64");
    start();
    for (int id = 1; id < 999; id += 2)
        take(sentence("GAGSA,A,3," + std::to_string(id) + "," + std::to_string(id + 1) + ",,,,,,,,,,,,,"));
    reader_->silence();
    EXPECT_EQ(records_, " > F3 U255,0,0,255");
}

// A sentence whose checksum is right goes on as it came, and counts for nothing unless each of its fields is right.
TEST_F(Nmea, refused) {
    const std::pair<std::string, const char *> cases[] = {
        // field numbers, and what is put in their place
        {"RMC",
         "1=12351 1=1235199 1=240000 1=126000 1=120061 1=1235x9 1=-00000 1=123519.x 1=123519, 2= 2=B 2=AA 3= 3=807.0 "
         "3=14807.0 3=9000.0001 3=4860.0 3=-807.0 3=4807.0.0 3=+4807.0 4= 4=E 5= 5=18000.001 5=1131.00 6= 6=N 7=-1 "
         "7=1e3 7=100001 7=. 7=0x1 8=360.01 8=-0.1 8=9999999999 9=310494 9=290201 9=000194 9=011394 9=010094 9=10194 "
         "9=0101.4 10=180.1 11=N 12=X 12=AA 13=X 13=V, 0=PXRMC 0=GPRMB 0=GPRM 0=GGPRMC 0=gprmc 0=RMC"},
        {"GGA", "1=246060 2=4899.0 6=9 6=-1 6=1.0 7=256 7=-1 8=655.36 9=2000000.001 9=--1 9=1,5 10=F 11=x "
                "12=F 13=-1 14=ABCD 14=0120,"},
        {"VTG", "1=361 2=M 3=400 4=T 5=-5 6=K 7=200000.001 8=N 9=? 9=A,"},
        {"GSA", "1=B 2=0 2=4 3=0 3=1000 3=-4 14=1.5 15=655.36 16=-1 17=x 17=2.1,G 17=2.1,11 17=2.1,1,"},
        {"GSV",
         "1=0 1= 1=17 2=0 2=2 2= 3=256 3=-1 4=0 4=1000 4=4, 5=91 5=-91 6=360 7=100 7=-1 15=00,G 15=00,1,2 15=00,1,2,3 "
         "15=00,1,,,,2,,, 15=0000000000"},
        // fewer fields than any form has, and far more
        {"GPRMC,123519,A,4807.0,N,01131.0,E,022.4,084.4,230394,003.1", "0=GPRMC"},
        {"GPRMC,123519,A,4807.0,N,,,022.4,084.4,230394,,", "0=GPRMC"},
        {"GPVTG,054.7,034.4,005.5,010.2", "0=GPVTG"},
        {"GPGSV", "0=GPGSV 0=GPGSV,1 0=GPGSV,1,1 0=GPGSV,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,,"},
    };
    for (const auto &[name, changes] : cases) {
        const std::string body = kBodies.count(name) ? kBodies.at(name) : name;
        std::istringstream list(changes);
        for (std::string change; list >> change;) {
            size_t at = 0;
            for (int field = std::stoi(change); field > 0; field--)
                at = body.find(',', at) + 1;
            const std::string good = sentence(body.substr(0, at) + change.substr(change.find('=') + 1) +
                                              body.substr(std::min(body.find(',', at), body.size())));
            EXPECT_EQ(told_of({good}), good.substr(0, good.size() - 2));
        }
    }
}

TEST_F(Nmea, framing) {
    const std::string good = sentence("GPTXT,hello"), body = good.substr(0, good.size() - 2);
    const std::string most = sentence(std::string(249, 'x')), more = sentence(std::string(250, 'x'));
    EXPECT_EQ(told_of({body + "\n" + body + "\r" + "noise" + good + "\0\xFF"s + good}), body + body + body + body);
    EXPECT_EQ(told_of({"$GPTXT,cut$" + good + std::string(100000, '$') + "\r\n" + good}), body + body);
    EXPECT_EQ(told_of({most + more + good}), most.substr(0, 253) + body);
    EXPECT_EQ(told_of({"$PMTK010,001*2E\r\n$OK*04\r\n$gJ*2d\r\n$g1*56\r\n$gJ*2D\r\n"}),
              "$PMTK010,001*2E$OK*04$gJ*2d$g1*56$gJ*2D");
    for (const std::string &bad :
         {body + " \r\n", body + "*00\r\n", body.substr(0, body.size() - 1) + "\r\n",
          body.substr(0, body.size() - 3) + "\r\n", body.substr(0, body.size() - 1) + "G\r\n", sentence("GPTXT,\t"),
          sentence("GPTXT,\x80") + sentence("GPTXT,\x7F") + sentence("GPTXT,a*b"), sentence("GPTXT,\0"s),
          "$1g*56\r\n$J*4A\r\n$g,*4B\r\n$*00\r\n!AIVDM,1*2E\r\n$\r\n$*\r\n\r\n"s, body})
        EXPECT_EQ(told_of({bad}), "");
}

// A drive of three moments with all that may come between, in two pieces, and byte by byte.
TEST_F(Nmea, cuts) {
    std::string bytes = "\r\nnoise\xFF$GPRMC,broken";
    for (const std::string time : {"235959.0", "000000.0", "000000.5"})
        bytes += sentence("GNRMC," + time + ",A,4807.038,N,01131.000,E,022.4,084.4,230394,,,A,V") +
                 sentence("GNGGA," + time + ",4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,") + whole("first") +
                 "$GPGSV,2,2,05,15*00\r\n" + sentence("GPTXT,$") + whole("second") + whole("GSA") +
                 sentence("PQTMX,1") + sentence("GLGSV,1,1,01,65,1,1,1,1") + "$" + std::string(260, 'x') + "\r\n";
    const std::string told = told_of({bytes});
    EXPECT_EQ(std::count(records_.begin(), records_.end(), '>'), 3);
    EXPECT_EQ(std::count(told.begin(), told.end(), '$'), 3 * 7);
    Texts single;
    for (size_t cut = 0; cut <= bytes.size(); cut++) {
        ASSERT_EQ(told_of({bytes.substr(0, cut), bytes.substr(cut)}), told) << cut;
        single.push_back(bytes.substr(cut, 1));
    }
    EXPECT_EQ(told_of(single), told);
}

// In the middle of a moment and of a list, a sentence of which one byte has changed: as if it were not there.
TEST_F(Nmea, corruption) {
    const std::string gga = ",,,,,0,00,,,,,,,", before = sentence("GPGGA,010203" + gga) + whole("first"),
                      after = whole("second") + sentence("GPGGA,010204" + gga);
    const std::string told = told_of({before + after});
    for (const auto &[name, body] : kBodies) {
        const std::string good = sentence(body);
        for (size_t at = 0; at < good.size() - 2; at++)
            for (int byte = 0; byte < 256; byte++) {
                std::string bad = good;
                bad[at] = char(byte);
                if (bad[at] == good[at] || (at > body.size() + 1 && byte == tolower(good[at])))
                    continue; // it fits still
                ASSERT_EQ(told_of({before + bad + after}), told) << name << " " << at << " " << byte;
            }
    }
}

} // namespace

// NMEA sentences of a drive into records, against finding the sentences alone: line ends and checksums.
#include "bench.h"

#include "gnss/nmea.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int kSeconds = 60;

std::string sentence(std::string body, int second) {
    char text[6];
    snprintf(text, sizeof text, "%02d", second % 60);
    if (const size_t at = body.find("SS"); at != body.npos)
        body.replace(at, 2, text);
    unsigned sum = 0;
    for (char byte : body)
        sum ^= uint8_t(byte);
    snprintf(text, sizeof text, "*%02X", sum & 0xFF);
    return "$" + body + text + "\r\n";
}

// What a receiver of four constellations tells in each second, SS.
constexpr const char *kEpoch[] = {
    "GNRMC,1215SS.000,A,4807.0382145,N,01131.0001728,E,27.431,84.40,211126,,,A,V",
    "GNVTG,84.40,T,,M,27.431,N,50.802,K,A",
    "GNGGA,1215SS.000,4807.0382145,N,01131.0001728,E,1,23,0.62,545.431,M,46.912,M,,",
    "GNGSA,A,3,03,06,09,11,17,19,22,28,,,,,1.12,0.62,0.93,1",
    "GNGSA,A,3,67,68,69,78,79,,,,,,,,1.12,0.62,0.93,2",
    "GNGSA,A,3,02,07,13,27,30,36,,,,,,,1.12,0.62,0.93,3",
    "GNGSA,A,3,19,20,29,35,,,,,,,,,1.12,0.62,0.93,4",
    "GPGSV,3,1,10,03,12,045,41,06,67,298,47,09,33,230,44,11,51,104,46,1",
    "GPGSV,3,2,10,17,40,270,44,19,62,155,45,22,21,317,38,28,08,021,36,1",
    "GPGSV,3,3,10,01,02,190,,33,31,148,39,1",
    "GLGSV,2,1,06,67,11,033,38,68,55,071,45,69,48,152,43,78,29,301,40,1",
    "GLGSV,2,2,06,79,70,011,46,80,03,340,,1",
    "GAGSV,2,1,07,02,25,066,40,07,71,200,47,13,40,120,43,27,33,280,42,7",
    "GAGSV,2,2,07,30,58,310,45,36,17,240,37,05,04,180,,7",
    "GBGSV,1,1,04,19,44,090,43,20,61,180,45,29,20,250,38,35,37,330,41,1",
};
constexpr int kSentences = kSeconds * int(sizeof kEpoch / sizeof *kEpoch);

const std::string &drive() {
    static const std::string text = [] {
        std::string all;
        for (int second = 0; second < kSeconds; second++)
            for (const char *body : kEpoch)
                all += sentence(body, second);
        return all;
    }();
    return text;
}

int g_sentences, g_epochs;
int64_t g_sink;

bool ours(int operations) {
    static tavrik::NmeaReader reader;
    reader.start({[](void *, const char *, size_t, int64_t) { g_sentences++; },
                  [](void *, const Tavrik_GnssData &record) {
                      g_epochs += record.sat_count == 27 && record.used == 23;
                      g_sink = record.lat;
                  },
                  nullptr});
    g_sentences = g_epochs = 0;
    const std::string &text = drive();
    for (int done = 0; done < operations; done += kSentences)
        for (size_t at = 0; at < text.size(); at += 4096) // as much as one read of the port brings
            reader.take(text.data() + at, std::min<size_t>(4096, text.size() - at), done);
    reader.silence();
    return g_sentences == operations && g_epochs == operations / kSentences * kSeconds;
}

bool base(int operations) {
    const std::string &text = drive();
    const auto digit = [](char hex) { return unsigned(hex <= '9' ? hex - '0' : hex - 'A' + 10); };
    int sentences = 0;
    for (int done = 0; done < operations; done += kSentences)
        for (const char *at = text.data(), *const end = at + text.size(); at < end;) {
            const char *const feed = static_cast<const char *>(memchr(at, '\n', size_t(end - at)));
            const char *const star = feed - 4;
            unsigned sum = 0;
            for (const char *byte = at + 1; byte < star; byte++)
                sum ^= uint8_t(*byte);
            sentences += sum == (digit(star[1]) << 4 | digit(star[2]));
            at = feed + 1;
        }
    return sentences == operations;
}

} // namespace

std::vector<bench::Row> bench::nmea_rows() {
    return {{"nmea", "per second", 20 * kSentences, ours, base}};
}

// Valid PDUs with what they must decode to, made the slow and plain way: bit by bit, from the fields of 3GPP TS 23.040.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

struct GeneratedPdu {
    std::string pdu;

    // As SmsMessage has it.
    bool concat = false;
    int concat_ref = 0, concat_seq = 0, concat_total = 0;
    int encoding = 0;
    std::string number, text;

    // As Tavrik_SmsDetail has it, where that differs.
    bool report = false;
    std::string full_number, full_text;
    int64_t time = 0, discharge_time = 0;
    int zone = 0, discharge_zone = 0;
    int message_class = -1, protocol = 0;
    int source_port = -1, destination_port = -1;
    int reference = -1;
    int message_reference = -1, status = -1;
};

class PduGenerator {
  public:
    explicit PduGenerator(uint64_t seed) : random_(seed) {}
    GeneratedPdu next();

  private:
    using Octets = std::vector<uint8_t>;

    int below(int limit) { return int(random_() % uint64_t(limit)); }
    bool one_in(int n) { return !below(n); }
    Octets address(GeneratedPdu &made);
    Octets time_stamp(int64_t &time, int &zone);
    Octets header(GeneratedPdu &made);
    Octets septets(size_t room, GeneratedPdu &made);
    Octets units(size_t room, GeneratedPdu &made);

    std::mt19937_64 random_;
};

// Septets behind `header` (which begins with its length octet, or is empty), packed with the fill bits between.
std::vector<uint8_t> pack_septets(const std::vector<uint8_t> &header, const std::vector<uint8_t> &septets);
// Septets that header and text take together.
int septet_length(const std::vector<uint8_t> &header, const std::vector<uint8_t> &septets);
std::string to_hex(const std::vector<uint8_t> &octets);
std::string to_utf8(uint32_t point);

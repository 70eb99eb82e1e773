// One row: what the library does and what the bare minimum needs for the same work, in alternating blocks of one run,
// so that whatever the machine does meanwhile meets both.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Row {
    std::string name;
    std::string unit; // "ns" for one operation, or "per second" for rates
    int operations;   // of one block
    // Both do so many operations, and return false when one went wrong.
    std::function<bool(int)> ours;
    std::function<bool(int)> base;
    double wanted_ns = 0; // what an operation is to take; only what it takes beyond that counts
};

// Where a row measures itself: nanoseconds of one operation.
double clock_ns();

std::vector<Row> at_rows();
std::vector<Row> bus_rows();
std::vector<Row> indication_rows();
std::vector<Row> nmea_rows();
std::vector<Row> pdu_rows(); // none without libgammu
std::vector<Row> store_rows();
std::vector<Row> text_rows();

} // namespace bench

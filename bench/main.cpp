// tavrik-bench [--json] [NAME...]: prints the ratio ours / base of each row, the median of 40 blocks with 10 % and 90
// %.
#include "bench.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

namespace {

constexpr int kBlocks = 40;

double at(std::vector<double> sorted, double part) {
    std::sort(sorted.begin(), sorted.end());
    return sorted[size_t(part * double(sorted.size() - 1) + 0.5)];
}

// Of one operation, or operations a second; no number when one went wrong.
double measure(const bench::Row &row, const std::function<bool(int)> &run) {
    const double start = bench::clock_ns();
    if (!run(row.operations))
        return NAN;
    const double ns = (bench::clock_ns() - start) / row.operations - row.wanted_ns;
    return row.unit == "ns" ? ns : 1e9 / ns;
}

bool run(const bench::Row &row, bool json) {
    std::vector<double> ours, base, ratio;
    for (int block = 0; block < kBlocks + 2; block++) { // the first two warm up
        double one[2];
        for (int turn = 0; turn < 2; turn++) {
            const bool mine = (block + turn) % 2;
            one[mine] = measure(row, mine ? row.ours : row.base);
            if (std::isnan(one[mine])) {
                fprintf(stderr, "%s: %s went wrong\n", row.name.c_str(), mine ? "ours" : "base");
                return false;
            }
        }
        if (block < 2)
            continue;
        ours.push_back(one[1]);
        base.push_back(one[0]);
        ratio.push_back(one[1] / one[0]);
    }
    if (json)
        printf("%s\n", nlohmann::json{{"name", row.name},
                                      {"ours", at(ours, .5)},
                                      {"base", at(base, .5)},
                                      {"ratio", at(ratio, .5)},
                                      {"ratio10", at(ratio, .1)},
                                      {"ratio90", at(ratio, .9)},
                                      {"unit", row.unit}}
                           .dump()
                           .c_str());
    else
        printf("%-24s %14.0f %14.0f   %6.3f  (%.3f to %.3f)  %s\n", row.name.c_str(), at(ours, .5), at(base, .5),
               at(ratio, .5), at(ratio, .1), at(ratio, .9), row.unit.c_str());
    fflush(stdout);
    return true;
}

} // namespace

double bench::clock_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

int main(int argc, char **argv) {
    CLI::App app("Ratios of the library to the bare minimum that does the same work");
    bool json = false;
    std::vector<std::string> names;
    app.add_flag("--json", json, "one object a line");
    app.add_option("name", names, "rows to run, all without");
    CLI11_PARSE(app, argc, argv);

    setenv("TAVRIK_LOG_OPTION", "0", 1); // the time-outs that are measured are no news
    std::vector<bench::Row> rows = bench::at_rows();
    for (auto more : {bench::bus_rows, bench::indication_rows, bench::nmea_rows, bench::pdu_rows, bench::store_rows,
                      bench::text_rows})
        for (bench::Row &row : more())
            rows.push_back(std::move(row));
    if (!json)
        printf("%-24s %14s %14s   %6s  (10 %% to 90 %%)\n", "", "ours", "base", "ratio");
    bool good = true;
    for (const bench::Row &row : rows)
        if (names.empty() || std::find(names.begin(), names.end(), row.name) != names.end())
            good = run(row, json) && good;
    return good ? 0 : 1;
}

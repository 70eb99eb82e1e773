#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace tavrik::sim {

class Args;

// What the program did, in order. Entries are cheap; they become JSON when they are read.
class Record {
  public:
    struct Entry {
        uint64_t number = 0;
        int64_t us = 0;        // since the module started
        std::string_view kind; // outlives the record
        uint32_t client = 0;   // of a socket, from 1 on
        int64_t id = -1;       // of a RIL request
        std::string text;      // command, line, "object method"
        std::string data;      // payload, when `has_data`
        bool has_data = false;
    };
    struct Filter {
        std::optional<std::string> kind;
        std::optional<std::string> text; // with wildcards
        std::optional<int64_t> id;
        uint64_t after = 0; // entries with a greater number

        static Filter from(Args &args);
        bool fits(const Entry &entry) const;
    };

    static constexpr size_t max_entries = 100000;

    void add(std::string_view kind, uint32_t client, std::string_view text);
    void add_ril(uint32_t id, const void *data, size_t length);

    // {"entries": […], "last": number, "dropped": entries that made room}
    nlohmann::json read(const Filter &filter, size_t limit) const;
    size_t count(const Filter &filter) const;
    uint64_t last() const { return last_; }
    // The numbers go on.
    void clear();

  private:
    void store(Entry entry);
    size_t first_after(uint64_t number) const;

    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::deque<Entry> entries_;
    uint64_t last_ = 0;
    uint64_t dropped_ = 0;
    size_t bytes_ = 0;
};

} // namespace tavrik::sim

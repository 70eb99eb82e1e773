#include "control/record.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "control/args.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

constexpr size_t max_bytes = 64 << 20;

bool is_utf8(const std::string &text) {
    for (size_t i = 0; i < text.size();) {
        auto lead = static_cast<unsigned char>(text[i]);
        size_t more = lead < 0x80                   ? 0
                      : lead >= 0xC2 && lead < 0xE0 ? 1
                      : lead >= 0xE0 && lead < 0xF0 ? 2
                      : lead >= 0xF0 && lead < 0xF5 ? 3
                                                    : 9;
        if (more == 9 || i + more >= text.size())
            return false;
        for (size_t k = 1; k <= more; k++)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
                return false;
        i += more + 1;
    }
    return true;
}

json to_json(const Record::Entry &entry) {
    json shown = {{"n", entry.number}, {"ms", static_cast<double>(entry.us) / 1000}, {"kind", entry.kind}};
    if (entry.client)
        shown["client"] = entry.client;
    if (entry.id >= 0) {
        shown["id"] = entry.id;
        if (entry.has_data)
            shown["data"] = to_hex(entry.data);
        return shown;
    }
    // Bytes that JSON cannot carry are there in hex.
    if (is_utf8(entry.text))
        shown["text"] = entry.text;
    else
        shown["hex"] = to_hex(entry.text);
    return shown;
}

size_t cost(const Record::Entry &entry) {
    return sizeof entry + entry.text.size() + entry.data.size();
}

} // namespace

Record::Filter Record::Filter::from(Args &args) {
    Filter filter;
    filter.kind = args.text("kind");
    filter.text = args.text("text");
    filter.id = args.number("id", 0, UINT32_MAX);
    filter.after = static_cast<uint64_t>(args.number("after", 0, INT64_MAX).value_or(0));
    return filter;
}

bool Record::Filter::fits(const Entry &entry) const {
    return (!kind || *kind == entry.kind) && (!id || *id == entry.id) && (!text || wildcard_match(*text, entry.text));
}

void Record::store(Entry entry) {
    entry.number = ++last_;
    entry.us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start_).count();
    bytes_ += cost(entry);
    entries_.push_back(std::move(entry));
    while (entries_.size() > max_entries || (bytes_ > max_bytes && entries_.size() > 1)) {
        bytes_ -= cost(entries_.front());
        entries_.pop_front();
        dropped_++;
    }
}

void Record::add(std::string_view kind, uint32_t client, std::string_view text) {
    Entry entry;
    entry.kind = kind;
    entry.client = client;
    entry.text = text;
    store(std::move(entry));
}

void Record::add_ril(uint32_t id, const void *data, size_t length) {
    Entry entry;
    entry.kind = "ril";
    entry.id = id;
    entry.has_data = data != nullptr;
    if (data)
        entry.data.assign(static_cast<const char *>(data), length);
    store(std::move(entry));
}

size_t Record::first_after(uint64_t number) const {
    if (entries_.empty() || number < entries_.front().number)
        return 0;
    return std::min<uint64_t>(number - entries_.front().number + 1, entries_.size());
}

json Record::read(const Filter &filter, size_t limit) const {
    json entries = json::array();
    for (size_t i = first_after(filter.after); i < entries_.size() && entries.size() < limit; i++)
        if (filter.fits(entries_[i]))
            entries.push_back(to_json(entries_[i]));
    return {{"entries", std::move(entries)}, {"last", last_}, {"dropped", dropped_}};
}

size_t Record::count(const Filter &filter) const {
    size_t n = 0;
    for (size_t i = first_after(filter.after); i < entries_.size(); i++)
        n += filter.fits(entries_[i]);
    return n;
}

void Record::clear() {
    entries_.clear();
    bytes_ = 0;
    dropped_ = 0;
}

} // namespace tavrik::sim

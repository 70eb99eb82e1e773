// Messages of the bus as bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {
#include "ubusmsg.h"
#include <libubox/blobmsg.h>
}

namespace tavrik {

constexpr uint32_t max_message = 1048576; // outer attribute, its head included

struct Header {
    uint8_t version;
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

// The attributes of one message, in the order in which they are put.
class Body {
  public:
    Body() = default;
    explicit Body(std::string_view bytes) : bytes_(bytes) {}

    Body &put(unsigned id, std::string_view payload) {
        head(id, payload.size());
        bytes_.append(payload);
        return pad();
    }
    Body &put_string(unsigned id, const std::string &text) { return put(id, {text.c_str(), text.size() + 1}); }
    Body &put_u8(unsigned id, uint8_t value) { return put(id, {reinterpret_cast<char *>(&value), 1}); }
    Body &put_u32(unsigned id, uint32_t value) {
        value = cpu_to_be32(value);
        return put(id, {reinterpret_cast<char *>(&value), 4});
    }
    // One attribute as it came.
    Body &copy(unsigned id, const blob_attr *attr) { return attr ? put(id, {attr->data, blob_len(attr)}) : *this; }
    // One blobmsg field.
    Body &field(unsigned type, std::string_view name, std::string_view value) {
        uint16_t length = cpu_to_be16(static_cast<uint16_t>(name.size()));
        size_t named = (2 + name.size() + 1 + 3) & ~size_t{3};
        head(BLOB_ATTR_EXTENDED >> BLOB_ATTR_ID_SHIFT | type, named + value.size());
        bytes_.append(reinterpret_cast<char *>(&length), 2).append(name).append(named - 2 - name.size(), '\0');
        bytes_.append(value);
        return pad();
    }
    Body &field_u32(std::string_view name, uint32_t value) {
        value = cpu_to_be32(value);
        return field(BLOBMSG_TYPE_INT32, name, {reinterpret_cast<char *>(&value), 4});
    }
    Body &field_string(std::string_view name, const std::string &text) {
        return field(BLOBMSG_TYPE_STRING, name, {text.c_str(), text.size() + 1});
    }
    std::string_view bytes() const { return bytes_; }

  private:
    void head(unsigned id, size_t payload) {
        uint32_t word = cpu_to_be32(id << BLOB_ATTR_ID_SHIFT | static_cast<uint32_t>(payload + 4));
        bytes_.append(reinterpret_cast<char *>(&word), 4);
    }
    Body &pad() {
        bytes_.append(-bytes_.size() & 3, '\0');
        return *this;
    }
    std::string bytes_;
};

// The attributes of a received message; absent ones are null.
struct Attributes {
    blob_attr *at[UBUS_ATTR_MAX];

    explicit Attributes(blob_attr *outer);
    uint32_t u32(unsigned id) const { return at[id] ? blob_get_u32(at[id]) : 0; }
    const char *text(unsigned id) const { return at[id] ? at[id]->data : nullptr; }
};

inline bool matches(std::string_view pattern, std::string_view text) {
    if (pattern.empty() || pattern.back() != '*')
        return pattern == text;
    pattern.remove_suffix(1);
    return text.substr(0, pattern.size()) == pattern;
}

} // namespace tavrik

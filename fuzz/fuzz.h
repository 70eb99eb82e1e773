// What every target needs: input cut into pieces, and a silent log.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

inline const bool g_quiet = !setenv("TAVRIK_LOG_OPTION", "0", 1);

inline void check(bool good) {
    if (!good)
        abort();
}

// Takes pieces off the input; what is missing is zero.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    unsigned byte() {
        if (!size_)
            return 0;
        size_--;
        return *data_++;
    }
    bool empty() const { return !size_; }
    unsigned next() const { return size_ ? *data_ : 0u; } // and leaves it there
    std::string rest() { return std::string(reinterpret_cast<const char *>(data_), size_); }
    // Up to the next zero byte.
    std::string text() {
        std::string text;
        while (size_)
            if (const char c = char(byte()))
                text += c;
            else
                break;
        return text;
    }

  private:
    const uint8_t *data_;
    size_t size_;
};

} // namespace fuzz

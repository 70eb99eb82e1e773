// Without memory, each operation fails as it says, loses nothing it had and leaks nothing.
#include "sms/sms_test.h"

static thread_local int g_left = -1; // allocations of this thread that still succeed; negative: all
static thread_local int g_held = 0;  // by what ran with such a limit

static bool refused() {
    if (g_left <= 0)
        return g_left == 0;
    --g_left;
    ++g_held;
    return false;
}

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void __libc_free(void *memory);
void *malloc(size_t size) noexcept {
    return refused() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) noexcept {
    return refused() ? nullptr : __libc_calloc(count, size);
}
void free(void *memory) noexcept {
    g_held -= g_left >= 0 && memory;
    __libc_free(memory);
}
}

namespace {

const std::string kPdu = pdu_of("08h 080500032A02010041");

// Runs the call with only the first `left` allocations granted, of which it must hold `held` in the end.
template <class Call>
auto with(int left, int held, Call call) {
    g_held = 0;
    g_left = left;
    const auto result = call();
    g_left = -1;
    EXPECT_EQ(g_held, held);
    return result;
}

TEST(Memory, Decoding) {
    const auto decode = [] { return creat_from_pdu(kPdu.c_str()); };
    EXPECT_EQ(with(0, 0, decode), nullptr);
    const uint8_t element[] = {0, 3, 1, 2, 1};
    EXPECT_EQ(with(0, 0, [&] { return parse_udh(element, 5); }), nullptr);
    const char *const outcomes[] = {"1 decode_pdu: malloc faild\nfrom  ", // no octets
                                    "1 encoding2 A",                      // no header
                                    "1 encoding2 concat1 ref42 seq1 total2 A"};
    for (int i = 0; i < 3; ++i) {
        SmsMessage *message = nullptr;
        const std::string log = outcome([&] { return (message = with(i + 1, 1, decode)) != nullptr; });
        EXPECT_EQ(log + describe(*message), outcomes[i]);
        free(message);
    }
}

TEST(Memory, Joining) {
    Tavrik_SmsDetail part = nothing();
    ASSERT_EQ(Tavrik_SMS_Decode(kPdu.c_str(), &part), 0);
    char *text = nullptr;
    const auto join = [&] { return Tavrik_SMS_Join(&part, &text, nullptr); };
    for (const int left : {0, 1}) // no copy of the text; no set
        EXPECT_EQ(outcome([&] { return with(left, 0, join); }),
                  "-1 Tavrik_SMS_Join: no memory for the parts of a message\n");
    EXPECT_EQ(join(), 0);
    part.sequence = 2;
    part.text[0] = 'B';
    EXPECT_EQ(with(1, 1, join), -1); // this part is kept, but there is no room for the whole
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(join(), 1);
    EXPECT_STREQ(text, "AB");
    free(text);
}

} // namespace

// Without memory, each operation fails as it says, loses nothing it had and leaks nothing.
#include "sms/sms_test.h"

#include <cstdlib>
#include <cstring>

namespace {

// Allocations of this thread that still succeed; negative: all.
thread_local int g_left = -1;
thread_local int g_held = 0; // by what ran with such a limit

bool refused() {
    if (g_left <= 0)
        return g_left == 0;
    --g_left;
    ++g_held;
    return false;
}

} // namespace

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

// Runs the call with only the first `left` allocations granted.
template <typename Call>
auto with(int left, Call call) {
    g_left = left;
    g_held = 0;
    const auto result = call();
    g_left = -1;
    return result;
}

const char kPdu[] = "07919471016705F0440B919471325476F8000842904241800308080500032A02010041";

TEST(Memory, Decoding) {
    EXPECT_EQ(with(0, [] { return creat_from_pdu(kPdu); }), nullptr);
    EXPECT_EQ(g_held, 0);
    SmsMessage *message = nullptr;
    EXPECT_EQ(logged([&] { message = with(1, [] { return creat_from_pdu(kPdu); }); }), "decode_pdu: malloc faild\n");
    EXPECT_STREQ(message->number, "");
    EXPECT_EQ(g_held, 1); // the record
    free(message);
    message = with(2, [] { return creat_from_pdu(kPdu); }); // none left for the header
    EXPECT_STREQ(message->text, "A");
    EXPECT_EQ(message->concat, 0);
    EXPECT_EQ(g_held, 1);
    free(message);
    message = with(3, [] { return creat_from_pdu(kPdu); });
    EXPECT_EQ(message->concat, 1);
    free(message);
    const uint8_t element[] = {0, 3, 1, 2, 1};
    EXPECT_EQ(with(0, [&] { return parse_udh(element, 5); }), nullptr);
}

TEST(Memory, Joining) {
    Tavrik_SmsDetail part = {};
    part.size = sizeof part;
    ASSERT_EQ(Tavrik_SMS_Decode(kPdu, &part), 0);
    char *text = nullptr;
    const auto join = [&] { return Tavrik_SMS_Join(&part, &text, nullptr); };
    const std::string log = "Tavrik_SMS_Join: no memory for the parts of a message\n";
    EXPECT_EQ(logged([&] { EXPECT_EQ(with(0, join), -1); }), log);
    EXPECT_EQ(logged([&] { EXPECT_EQ(with(1, join), -1); }), log); // the text, but no set
    EXPECT_EQ(g_held, 0);
    EXPECT_EQ(join(), 0);
    part.sequence = 2;
    part.text[0] = 'B';
    EXPECT_EQ(with(1, join), -1); // this part, but not the whole
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(g_held, 1); // the part is kept
    EXPECT_EQ(join(), 1);
    EXPECT_STREQ(text, "AB");
    free(text);
}

} // namespace

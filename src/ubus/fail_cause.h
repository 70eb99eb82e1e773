// The cause with which the last call failed, for voice calls and eCalls.
#pragma once

#include <endian.h>
#include <stdlib.h>
#include <string.h>

#include "core/cause.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

namespace tavrik {

constexpr uint32_t kLastFailCause = 18;

// Asks for it. The families check the reply each in its own order.
class FailCause {
  public:
    FailCause() {
        constexpr int kMs = 10000;
        RilRequest request(kLastFailCause);
        result_ = request.ok ? tavrik_call_ubusinvoke(&request.buf, "ril", "ril_request", 1, &message_, kMs) : -1;
    }
    ~FailCause() { free(message_); }
    FailCause(const FailCause &) = delete;
    FailCause &operator=(const FailCause &) = delete;

    int result() const { return result_; }
    blob_attr *message() const { return message_; }

    static bool in(const RilReply &reply) { return reply.data && reply.length >= sizeof(uint32_t); }
    // Hands out the cause that is in the reply; `text` may be NULL.
    template <class Number>
    static void tell(const RilReply &reply, Number *cause, char *text) {
        uint32_t number;
        memcpy(&number, reply.data, sizeof number);
        number = le32toh(number);
        *cause = Number(number);
        if (text)
            strcpy(text, fail_cause_text(number));
    }

  private:
    int result_;
    blob_attr *message_ = nullptr;
};

} // namespace tavrik

// The fields of an unsolicited result, one after the other.
#pragma once

#include "core/text.h"
#include "tavrik_sdk.h"

#include <limits>
#include <stdint.h>
#include <stdlib.h>

namespace tavrik {

class Fields {
  public:
    // Those behind the first ":" of the line, which is cut at them.
    explicit Fields(char *line) : cursor_(line) { at_tok_start(&cursor_); }

    // All that follows, without blanks at its ends; NULL without a ":".
    char *rest() { return cursor_ ? trim(cursor_) : nullptr; }

    // The next field without quotes and blanks; NULL behind the last.
    char *text() {
        char *field;
        return at_tok_nextstr(&cursor_, &field) || !field ? nullptr : trim(field);
    }

    // The next field as a whole number into `value`. False, and `value` as it was, when it is missing, empty, anything
    // else, or beyond the type.
    template <class Value>
    bool number(Value &value, int base = 10) {
        const char *const field = text();
        if (!field || !*field)
            return false;
        char *end;
        const long long number = strtoll(field, &end, base);
        if (*end || number < std::numeric_limits<Value>::min() || number > std::numeric_limits<Value>::max())
            return false;
        value = Value(number);
        return true;
    }

  private:
    char *cursor_;
};

} // namespace tavrik

#include "nw/field.h"

#include "core/text.h"

#include <string.h>

namespace tavrik {

Field::Field(const char *text, int index) {
    const size_t length = strnlen(text, sizeof copy_ - 1);
    memcpy(copy_, text, length);
    copy_[length] = 0;
    text_ = string_split_parameter(copy_, ",", index);
    if (text_)
        text_ = trim(text_);
}

int Field::number() const {
    return text_ ? decimal(text_) : 0;
}

} // namespace tavrik

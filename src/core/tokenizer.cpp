// Walks an information line by a cursor and cuts it into fields in place.
#include "core/log.h"
#include "core/text.h"
#include "tavrik_sdk.h"

#include <string.h>

namespace {

// Cuts the next field off the line; NULL when there is none.
char *next_field(char **cursor) {
    skip_white_space(cursor);
    if (!*cursor)
        return nullptr;
    if (**cursor != '"')
        return strsep(cursor, ",");
    ++*cursor;
    char *field = strsep(cursor, "\"");
    skip_next_comma(cursor);
    return field;
}

} // namespace

int at_tok_start(char **cursor) {
    if (!cursor || !*cursor) {
        TAVRIK_LOG_ERROR("*p_cur is null");
        return -1;
    }
    char *colon = strchr(*cursor, ':');
    *cursor = colon ? colon + 1 : nullptr;
    return colon ? 0 : -1;
}

char **skip_white_space(char **cursor) {
    if (cursor && *cursor)
        *cursor += strspn(*cursor, " \t\n\v\f\r");
    return cursor;
}

char **skip_next_comma(char **cursor) {
    if (cursor && *cursor) {
        *cursor += strcspn(*cursor, ",");
        if (**cursor)
            ++*cursor;
    }
    return cursor;
}

int at_tok_nextint(char **cursor, int *value) {
    if (!cursor || !*cursor || !value)
        return -1;
    const char *field = next_field(cursor);
    if (!field)
        return -1;
    char *end;
    *value = tavrik::decimal(field, &end);
    return end == field ? -1 : 0;
}

int at_tok_nextbool(char **cursor, char *value) {
    int number;
    if (at_tok_nextint(cursor, &number) || number < 0 || number > 1)
        return -1;
    if (value)
        *value = char(number);
    return 0;
}

int at_tok_hasmore(char **cursor) {
    return cursor && *cursor && **cursor;
}

int at_tok_nextstr(char **cursor, char **value) {
    if (!cursor || !*cursor || !value)
        return -1;
    *value = next_field(cursor);
    return 0;
}

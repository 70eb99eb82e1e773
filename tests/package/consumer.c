/* A customer's program, C99 and C++17, with a function of its own by the name of one of ours. */
#define TAVRIK_NO_SHORT_NAMES
#include <tavrik_sdk.h>

#include <string.h>

int at_tok_start(char **cursor);
int at_tok_start(char **cursor) {
    return cursor ? 77 : 78;
}

int main(int argc, char **argv) {
    char *line = NULL;
    if (argc != 2 || strcmp(argv[1], TAVRIK_SDK_VERSION) != 0)
        return 1;
    if (at_tok_start(&line) != 77 || Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG) != 0)
        return 2;
    return Tavrik_Get_Log_Mode() == TAVRIK_LOG_SYSLOG && Tavrik_Switch_Log_Mode(4) == -1 ? 0 : 3;
}

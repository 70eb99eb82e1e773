// tavrikctl log: does what the library logs arrive?
#include "command.h"
#include "output.h"

#include <cstdio>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

bool test(const Arguments &arguments, Output &) {
    Tavrik_Switch_Log_Mode(int(arguments.number("MODE")));
    Tavrik_Log_Test();
    return fflush(stdout) == 0 || fail("log test: cannot write to standard output");
}

} // namespace

Family log_family() {
    return {"log",
            "Log of the library",
            {{"log",
              "test",
              "Write one line of each level to where MODE sends them",
              {number("MODE", "0 standard output, 1 the module's log, 2 syslog, 3 kernel log", 0, 3)},
              test,
              false}}};
}

} // namespace tavrikctl

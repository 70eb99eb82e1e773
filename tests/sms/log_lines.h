#pragma once

#include "tavrik_sdk.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>

// What the call logs at level error, each line as "FUNCTION: TEXT\n".
template <typename Call>
std::string logged(Call call) {
    const int mode = Tavrik_Get_Log_Mode();
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    testing::internal::CaptureStdout();
    call();
    fflush(stdout);
    const std::string lines = testing::internal::GetCapturedStdout();
    Tavrik_Switch_Log_Mode(mode);
    return std::regex_replace(lines, std::regex("\\[sdklog err:(\\w+):[0-9]+\\]:"), "$1: ");
}

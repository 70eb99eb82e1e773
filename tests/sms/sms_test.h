#pragma once

#include "sms/pdu_generator.h"
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

const std::string kCentre = "07919471016705F0", kTime = "42904241800308", kSender = "0B919471325476F8";

inline std::string hex(int octet) {
    return to_hex({uint8_t(octet)});
}

// A message from +49172345678 with all up to the user data, which comes with its length in front.
inline std::string deliver(int coding, const std::string &data, bool header = false,
                           const std::string &sender = kSender) {
    return kCentre + (header ? "44" : "04") + sender + "00" + hex(coding) + kTime + data;
}

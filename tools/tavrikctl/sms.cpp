// tavrikctl sms: messages.
#include "command.h"
#include "message.h"
#include "output.h"
#include "watch.h"

#include <cstring>
#include <future>
#include <iostream>
#include <iterator>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

struct Ended {
    int status;
    int32_t resp;
};

// How an asynchronous send ends that `start` makes.
template <class Start>
std::future<Ended> started(std::promise<Ended> &promise, Start start) {
    const auto on_end = [](void *user, int status, int32_t resp) {
        static_cast<std::promise<Ended> *>(user)->set_value({status, resp});
    };
    std::future<Ended> future = promise.get_future();
    if (start(on_end, &promise) != 0)
        promise.set_value({TAVRIK_SMS_FAILED, -1});
    return future;
}

bool show(Output &output, const std::string &verb, int result) {
    if (result == -1)
        return fail(verb + ": failed");
    output.field("result", "Result", result);
    if (!output.end())
        return fail(verb + ": cannot write the result");
    return result == 0 || fail(verb + ": the service refuses it");
}

bool show(Output &output, const std::string &verb, std::future<Ended> ended) {
    const Ended end = ended.get();
    tavrik_ubus_deinit(); // what the callback's promise stands in goes only when its thread has
    if (end.status == TAVRIK_SMS_TIMED_OUT)
        return fail(verb + ": no answer in time", kTimedOut);
    return show(output, verb, end.status == TAVRIK_SMS_ANSWERED ? end.resp : -1);
}

bool send(const Arguments &arguments, Output &output) {
    const std::string &number = arguments.text("NUMBER");
    std::string text = arguments.has("TEXT") ? arguments.text("TEXT") : "-";
    if (text == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
    }
    SmsMessage message = {};
    if (number.size() > sizeof message.number || text.size() > sizeof message.text)
        return fail("sms send: too long");
    memcpy(message.number, number.data(), number.size());
    memcpy(message.text, text.data(), text.size());
    message.length = int32_t(text.size());
    if (!arguments.has("--async"))
        return show(output, "sms send", Tavrik_SMS_SendMsg(&message));
    std::promise<Ended> promise;
    return show(output, "sms send", started(promise, [&](Tavrik_SmsSendCb on_end, void *user) {
                    return Tavrik_SMS_SendMsg_AsyncEx(&message, int(arguments.number("--timeout")), on_end, user);
                }));
}

bool send_pdu(const Arguments &arguments, Output &output) {
    const std::string &pdu = arguments.text("PDU");
    if (!arguments.has("--async"))
        return show(output, "sms send-pdu", Tavrik_SMS_SendPdu(pdu.c_str()));
    std::promise<Ended> promise;
    return show(output, "sms send-pdu", started(promise, [&](Tavrik_SmsSendCb on_end, void *user) {
                    return Tavrik_SMS_SendPdu_AsyncEx(pdu.c_str(), int(arguments.number("--timeout")), on_end, user);
                }));
}

bool listen(const Arguments &arguments, Output &output) {
    return watch("sms listen", {0}, arguments, output);
}

bool decode_pdu(const Arguments &arguments, Output &output) {
    Message message;
    if (!decode(arguments.text("PDU").c_str(), message))
        return fail("sms decode: not a whole message that can be received");
    output.field("type", "type", message.detail.type == TAVRIK_SMS_REPORT ? "report" : "message");
    put(output, message);
    put_details(output, message);
    return output.end() || fail("sms decode: cannot write it");
}

} // namespace

Family sms_family() {
    const Parameter async = switch_option("--async", "Use the asynchronous operation, and wait for its callback"),
                    timeout = number_option("--timeout", "MS", "With --async: how long to wait for the answer", 1,
                                            60000, "60000");
    return {"sms",
            "Messages",
            {{"sms",
              "send",
              "Send a text; the service's answer is the result, 0 for success",
              {word("NUMBER", "Whom to"), optional_word("TEXT", "What; - or nothing reads it from standard input"),
               async, timeout},
              send},
             {"sms",
              "send-pdu",
              "Send a message that is encoded already",
              {word("PDU", "Hexadecimal text of an SMS-SUBMIT"), async, timeout},
              send_pdu},
             {"sms", "listen", "Print messages and status reports as they come, a line each; parts are joined",
              watch_options(), listen},
             {"sms",
              "decode",
              "Print what a received message says; needs no module",
              {word("PDU", "Hexadecimal text, the service centre's address in front")},
              decode_pdu,
              false}}};
}

} // namespace tavrikctl

// tavrikctl upgrade: the module's firmware.
#include "command.h"
#include "level.h"
#include "output.h"

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <future>
#include <tavrik_sdk.h>
#include <thread>

namespace tavrikctl {
namespace {

using Clock = std::chrono::steady_clock;

struct State {
    bool known; // the service told one
    int32_t code;
    std::string word;

    bool over() const { return known && code != TAVRIK_UPDATE_UPDATING; }
    // The number in front of a "%" in the word; -1 without.
    int percent() const {
        const size_t end = word.find('%');
        size_t start = end == std::string::npos ? 0 : end;
        while (start > 0 && isdigit(static_cast<unsigned char>(word[start - 1])))
            --start;
        return start == end || end == std::string::npos ? -1 : atoi(word.c_str() + start);
    }
};

State ask() {
    State state = {};
    char word[TAVRIK_UPDATE_WORD_SIZE] = "";
    state.known = Tavrik_Query_Update_StateEx(&state.code, word) == 0;
    state.word = word;
    return state;
}

// Prints states, each once, and on a terminal the time that goes by as well.
class Progress {
  public:
    explicit Progress(Output &output) : output_(output), terminal_(output.redraw()) {}

    bool show(const State &state) {
        if (state.word.empty() || (!terminal_ && state.word == shown_))
            return true;
        shown_ = state.word;
        output_.field("state", "State", state.word);
        using std::chrono::duration_cast;
        output_.field("elapsed", "Elapsed", duration_cast<std::chrono::seconds>(Clock::now() - start_).count(), " s");
        put_index(output_, "percent", "Percent", state.percent(), 100, true);
        return output_.end() || fail("upgrade: cannot write it");
    }

  private:
    Output &output_;
    const bool terminal_;
    const Clock::time_point start_ = Clock::now();
    std::string shown_;
};

bool outcome(const State &state, const char *verb) {
    if (!state.known)
        return fail(std::string("upgrade ") + verb + ": the service does not tell a state that is known");
    return state.code == TAVRIK_UPDATE_SUCCESS || state.code == TAVRIK_UPDATE_UPDATING ||
           fail(std::string("upgrade ") + verb + ": " + state.word);
}

constexpr auto kBetween = std::chrono::milliseconds(500);

// Until the upgrade is over. A service that restarts meanwhile is asked again for as long as a minute.
State wait(Progress &progress, bool &written) {
    constexpr int kMost = 120;
    State state = {};
    for (int silent = 0; written && silent < kMost; silent = state.known ? 0 : silent + 1) {
        state = ask();
        written = progress.show(state);
        if (state.over())
            break;
        std::this_thread::sleep_for(kBetween);
    }
    return state;
}

bool status(const Arguments &arguments, Output &output) {
    if (arguments.has("--wait")) {
        Progress progress(output);
        bool written = true;
        const State state = wait(progress, written);
        return written && outcome(state, "status");
    }
    const State state = ask();
    if (!state.word.empty()) {
        output.field("state", "State", state.word);
        put_index(output, "percent", "Percent", state.percent(), 100, true);
        if (!output.end())
            return fail("upgrade: cannot write it");
    }
    return state.known || outcome(state, "status");
}

// The call may block until the upgrade is over: the state is asked for meanwhile.
bool upgrade(const char *verb, int (*start)(const char *), const std::string &from, const Arguments &arguments,
             Output &output) {
    Progress progress(output);
    bool written = true;
    std::future<int> taken = std::async(std::launch::async, start, from.c_str());
    bool ran = false;
    while (taken.wait_for(kBetween) != std::future_status::ready) {
        const State state = ask();
        ran = ran || (state.known && state.code == TAVRIK_UPDATE_UPDATING);
        if (ran) // what it was before does not matter
            written = progress.show(state) && written;
    }
    if (taken.get() != 0)
        return fail(std::string("upgrade ") + verb + ": " + (ran ? "failed" : "it cannot be started"));
    State state = ask();
    written = progress.show(state) && written;
    if (arguments.has("--wait") && !state.over())
        state = wait(progress, written);
    return written && outcome(state, verb);
}

bool from_file(const Arguments &arguments, Output &output) {
    return upgrade("file", Tavrik_Upgrade_Through_SD, arguments.text("PATH"), arguments, output);
}

bool from_url(const Arguments &arguments, Output &output) {
    return upgrade("http", Tavrik_Upgrade_Through_HTTP, arguments.text("URL"), arguments, output);
}

} // namespace

Family upgrade_family() {
    const Parameter until_end =
        switch_option("--wait", "Go on until the upgrade is over, when the service has answered");
    return {"upgrade",
            "Firmware of the module",
            {{"upgrade",
              "file",
              "Upgrade from a package on the module, and print the state meanwhile",
              {word("PATH", "The package"), until_end},
              from_file},
             {"upgrade",
              "http",
              "Upgrade from a package on a server, and print the state meanwhile",
              {word("URL", "Where it is: http:// or https://"), until_end},
              from_url},
             {"upgrade",
              "status",
              "Print how far the upgrade is",
              {switch_option("--wait", "Print it until the upgrade is over")},
              status}}};
}

} // namespace tavrikctl

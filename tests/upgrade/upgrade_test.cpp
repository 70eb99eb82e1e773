// Firmware upgrade in the simulated module: what servers answer, what the service gets, and what its answers make of
// it.
#include "support/descriptors.h"
#include "support/http_servers.h"
#include "support/shell.h"
#include "support/sim.h"
#include "ubus/ril.h"

#include <atomic>
#include <chrono>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <netdb.h>
#include <set>

static std::atomic<bool> g_name_server_silent{false};

// A name server that keeps libcurl waiting for ever.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char *node, const char *service,
                                                                  const addrinfo *hints, addrinfo **result) {
    while (node && !strcmp(node, "stuck.invalid") && g_name_server_silent)
        usleep(10000);
    return reinterpret_cast<decltype(&::getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"))(node, service, hints, result);
}

namespace {

using nlohmann::json;

class Upgrade : public testing::Test {
  protected:
    Upgrade() {
        for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            unsetenv(name);
        sim::call("reset");
        sim::call("state", {{"ota_ms", 20}});
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        HttpServers::trust(true);
        requested();
    }
    ~Upgrade() override { sim::call("reset"); }

    static inline HttpServers servers;
    static std::string requested() {
        return std::regex_replace(servers.requests(), std::regex("HEAD /(\\w+) HTTP/1.1;"), "$1 ");
    }
};

// The result of a call, its log, and what the service was asked.
template <class Argument>
std::string did(int (*run)(Argument), Argument argument) {
    int result = 77;
    const std::string log = sim::log_of([&] { result = run(argument); });
    std::string all = std::to_string(result) + " " + log;
    for (const std::string &request : sim::recorded("ota"))
        all += request + ";";
    return all;
}

// Under the thread sanitizer checks share the process's table of descriptors, with all that libcurl opens.
#if defined(__has_feature)
constexpr bool kOneTable = __has_feature(thread_sanitizer);
#else
constexpr bool kOneTable = false;
#endif

// The first: libcurl is not loaded yet.
TEST_F(Upgrade, LibcurlThatCannotBeLoaded) {
    const std::string url = servers.url("http");
    const std::string log = sim::log_of([&] {
        const NoDescriptors none;
        EXPECT_EQ(Tavrik_Upgrade_Through_HTTP(url.c_str()), -1);
    });
    EXPECT_TRUE(std::regex_match(log, std::regex("query_http_file_is_exist: libcurl.so.4 cannot be loaded: .+\n"
                                                 "Tavrik_Upgrade_Through_HTTP: This url can't get upgrde package\n")))
        << log;
    std::vector<std::future<int>> loading; // that load it together
    for (int i = 0; i < 4; ++i)
        loading.push_back(std::async(std::launch::async, query_http_file_is_exist, url.c_str()));
    for (auto &result : loading)
        EXPECT_EQ(result.get(), 0);
}

TEST_F(Upgrade, WhatServersAnswer) {
    const auto at = [](const char *server, const char *path = "200") { return servers.url(server, path); };
    const std::string http = at("http"), https = at("https"), far(100000, 'x'),
                      local = servers.url("http", "200", "localhost"), answer = "-1 debug query_http_file_is_exist: ";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"0 ", {http, https, local, at("http", "slow"), at("http", "body")}},
        {answer + "answered with 302\n", {at("http", "302"), at("https", "302")}},
        {answer + "answered with 201\n", {at("http", "201")}},
        {answer + "no answer: .*certificate.*\n", {at("wrong_host"), at("expired"), at("stranger")}},
        {answer + "no answer: .+\n",
         {at("http", "reset"), at("http", "close"), at("http", "garbage"), at("https", "reset"), at(""),
          "http://" + far, "file:///etc/passwd", "ftp" + http.substr(4), "https" + http.substr(4)}}};
    for (const auto &[outcome, urls] : cases)
        for (const std::string &url : urls) {
            const std::string all = did(query_http_file_is_exist, url.c_str());
            EXPECT_TRUE(std::regex_match(all, std::regex(outcome))) << url.substr(0, 100) << ": " << all;
        }
    EXPECT_EQ(requested(), "200 200 200 slow body 302 302 201 reset close garbage reset ");
    for (const bool trusted : {false, true}) { // from the next check on
        HttpServers::trust(trusted);
        EXPECT_EQ(query_http_file_is_exist(https.c_str()), trusted ? 0 : -1);
    }
    EXPECT_EQ(did<const char *>(query_http_file_is_exist, nullptr), "-1 query_http_file_is_exist: Param is NULL\n");
    EXPECT_EQ(did(query_http_file_is_exist, ""), "-1 query_http_file_is_exist: Param is error\n");
    EXPECT_EQ(write_data("abc", 1, 3, nullptr), 3u);
}

constexpr char kNoService[] = R"({"service": "ota", "stop": true})", kNoBus[] = R"({"service": "bus", "stop": true})",
               kRefused[] = R"({"service": "ota", "status": 9})";

// A request for a download with each argument, and before it a fault if one is given; "@" is its name in what it does.
void download(const char *name, int (*run)(const char *),
              const std::vector<std::tuple<const char *, const char *, std::string>> &rows) {
    for (const auto &[fault, argument, outcome] : rows) {
        if (*fault)
            sim::call("fault", json::parse(fault));
        EXPECT_EQ(did(run, argument), std::regex_replace(outcome, std::regex("@"), name));
        sim::call("clear");
        sim::call("state", {{"ota", "not start"}}); // so that the next one may start
    }
}

TEST_F(Upgrade, FromStorage) {
    const auto wire = [](const std::string &size, const std::string &path) {
        return R"(download {"type":2,"size":)" + size + R"(,"url":")" + path +
               R"(","username":"","password":"","sync":1};)";
    };
    shell("truncate -s 12345 /tmp/package; truncate -s 5G /tmp/big");
    const std::string size = " info get_pkg_size: \n  file_size=", known = size + "12345\n";
    const std::string wait =
        "info @: \n  upgrade_through_sd(): Please wait 30s,please reboot when Upgrade successfully\n";
    const std::string package = wire("12345", "/tmp/package");
    testing::internal::CaptureStderr();
    download("Tavrik_Upgrade_Through_SD", Tavrik_Upgrade_Through_SD,
             {{"", "/tmp/package", "0" + known + wait + package},
              {"", "/tmp/big", "0" + size + "5368709120\n" + wait + wire("1073741824", "/tmp/big")},
              {"", "/dev/null", "0" + size + "0\n" + wait + wire("0", "/dev/null")},
              {R"({"service": "ota", "reply": {"x": 1}})", "/tmp/package", "0" + known + wait + package},
              {"", nullptr, "-1 @: url is null\n"},
              {"", "/tmp/none", "-1 @: get pkg size failed!\n"},
              {kRefused, "/tmp/package", "-1" + known + wait + "@:  ubus_invoke OTA failed \n" + package},
              {kNoService, "/tmp/package", "-1" + known + "@: ubus lookup ota id failed!\n"},
              {kNoBus, "/tmp/package", "-1" + known + "@: Failed to connect to ubus\n"}});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to connect to ubus\n");
}

TEST_F(Upgrade, FromServer) {
    const std::string http = servers.url("http"), https = servers.url("https"), absent = servers.url("http", "404"),
                      ftp = "ftp" + http.substr(4), upper = "HTTP" + http.substr(4),
                      wait = "info @:  Please wait for some time until appear hint\n",
                      scheme = "-1 @:  Please add http or https when entering url parameters\n";
    const auto wire = [](const std::string &url) { return R"(download {"type":0,"url":")" + url + R"(","sync":1};)"; };
    download("Tavrik_Upgrade_Through_HTTP", Tavrik_Upgrade_Through_HTTP,
             {{"", http.c_str(), "0 " + wait + wire(http)},
              {"", https.c_str(), "0 " + wait + wire(https)},
              {"", nullptr, "-1 @:  Param is NULL\n"},
              {"", "", "-1 @: Param is error\n"},
              {"", ftp.c_str(), scheme},
              {"", upper.c_str(), scheme},
              {"", "http:/x", scheme},
              {"", absent.c_str(),
               "-1 debug query_http_file_is_exist: answered with 404\n@: This url can't get upgrde package\n"},
              {kRefused, http.c_str(), "-1 " + wait + wire(http)},
              {kNoService, http.c_str(), "-1 "},
              {kNoBus, http.c_str(), "-1 @: Failed to connect to ubus\n"}});
    EXPECT_EQ(requested(), "200 200 404 200 200 200 ");
}

// The result, the code or "-", and the word of a query. One that is told no word has the same result.
std::string query() {
    int32_t state = -7, same = -7;
    char word[TAVRIK_UPDATE_WORD_SIZE] = "unwritten";
    const int result = Tavrik_Query_Update_StateEx(&state, word);
    EXPECT_EQ(Tavrik_Query_Update_State(&same), result);
    EXPECT_EQ(same, state);
    return std::to_string(result) + " " + (state == -7 ? "-" : std::to_string(state)) + " " + word;
}

TEST_F(Upgrade, WhatTheServiceTells) {
    int32_t state = -7;
    EXPECT_EQ(did<int32_t *>(Tavrik_Query_Update_State, nullptr),
              "-1 Tavrik_Query_Update_State: Parameter input error\n");
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_Query_Update_StateEx(&state, nullptr), -1); }),
              "Tavrik_Query_Update_StateEx: Parameter input error\n");
    sim::call("fault", json::parse(kNoService));
    EXPECT_EQ(did(Tavrik_Query_Update_State, &state), "-1 ");
    sim::call("fault", json::parse(kNoBus));
    EXPECT_EQ(did(Tavrik_Query_Update_State, &state), "-1 Tavrik_Query_Update_State: Failed to connect to ubus\n");
    EXPECT_EQ(state, -7);
    sim::call("clear");

    const std::string x24(24, 'x'), x(200, 'x'), log = "info query_update_state_cb:  g_update_state:";
    const std::pair<const char *, std::vector<std::string>> rows[] = {
        {"0 0 ", {"updating 45%"}},
        {"0 1 ", {"success", "success" + x24, "success" + x24 + "x"}},
        {"0 3 ", {"not started"}},
        {"-1 - ", {"", "Success", "succes"}},
        {"0 2 ", {"failed: checksum", "failed" + x}}};
    for (const auto &[result, words] : rows)
        for (const std::string &word : words) {
            const std::string told = word.substr(0, 31), line = log + told + "\n", outcome = result + told;
            sim::fault("ota", "query", {{"reply", {{"response", word}}}});
            EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(query(), outcome); }), line + line);
            EXPECT_EQ(sim::recorded("ota"), std::vector<std::string>(2, R"(query {"type":"1"})"));
            sim::call("clear");
        }
    // The last word stays. The one in bytes does not end.
    for (const json &effect :
         R"([{"reply": {"other": "success"}}, {"reply": {"response": 1}}, {"times": 0}, {"raw": ""},
              {"reply": {"response": {"a": "success"}}}, {"hex": "830000140008726573706f6e7365000073756363"}])"_json) {
        sim::fault("ota", "query", effect);
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(query(), "0 2 failed" + x24 + "x") << effect; }), "");
        sim::call("clear");
    }
    sim::fault("ota", "query", R"({"reply": {"response": "success"}, "status": 9})"_json);
    EXPECT_EQ(query(), "-1 - ");
    sim::call("clear");
    sim::fault("ota", "query", {{"times", 0}});
    EXPECT_EQ(query(), "0 1 success");
    tavrik::BlobBuf failed;
    blobmsg_add_string(&failed.buf, "response", "failed");
    query_update_state_cb(nullptr, 0, failed.head());
    query_update_state_cb(nullptr, 0, nullptr);
    EXPECT_EQ(query(), "0 2 failed");
}

// Each query counts its own word: as many of each as the service told.
TEST_F(Upgrade, QueriesAtOnce) {
    for (int i = 1; i <= 80; ++i)
        sim::fault("ota", "*", {{"nth", i}, {"delay", i % 7}, {"reply", {{"response", i % 2 ? "success" : "failed"}}}});
    const auto ask = [] {
        int succeeded = 0;
        for (int i = 0; i < 20; ++i) {
            int32_t state = 0;
            EXPECT_EQ(Tavrik_Query_Update_State(&state), 0);
            succeeded += state == TAVRIK_UPDATE_SUCCESS;
        }
        return succeeded;
    };
    std::future<int> others[3];
    for (auto &other : others)
        other = std::async(std::launch::async, ask);
    EXPECT_EQ(ask() + others[0].get() + others[1].get() + others[2].get(), 40);
}

std::set<int> descriptors() {
    std::set<int> all;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        all.insert(std::stoi(entry.path().filename()));
    return all;
}
std::string signals() { // ignored and caught ones
    const std::string status = read_file("/proc/self/status");
    return status.substr(status.find("SigIgn"), 49);
}
int checks() { // whose threads have not ended
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        count += read_file(entry.path() / "comm") == "tavrikcheck\n";
    return count;
}

// All that has a limit, at the same time, and what the process looks like meanwhile and afterwards.
TEST_F(Upgrade, LimitsAndGuest) {
    tavrik_ubus_deinit(); // which keeps connections for later requests
    ASSERT_EQ(query_http_file_is_exist(servers.url("http").c_str()), 0);
    ASSERT_EQ(query(), "0 3 not start");
    const std::set<int> before = descriptors();
    const std::string signals_before = signals();
    g_name_server_silent = true;
    sim::fault("ota", "query", {{"drop", true}});
    sim::fault("ota", "download*", {{"delay", 31000}});
    const auto ask = [](const char *) {
        int32_t state;
        return Tavrik_Query_Update_State(&state);
    };
    const std::tuple<int (*)(const char *), std::string, int, int> cases[] = {
        {query_http_file_is_exist, servers.url("mute"), -1, 29995},
        {query_http_file_is_exist, servers.url("http", "drip"), -1, 29995},
        {query_http_file_is_exist, "http://stuck.invalid/", -1, 29995},
        {query_http_file_is_exist, "https" + servers.url("mute").substr(4), -1, 9995},
        {Tavrik_Upgrade_Through_HTTP, servers.url("http"), 0, 30995},
        {ask, "", -1, 29995},
    };
    std::vector<std::future<void>> running;
    for (const auto &one : cases)
        running.push_back(std::async(std::launch::async, [&one] {
            const auto &[run, url, result, least_ms] = one;
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(run(url.c_str()), result) << url;
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_TRUE(took >= std::chrono::milliseconds(least_ms) && took < std::chrono::minutes(1)) << url;
        }));
    sleep(5);
    EXPECT_EQ(signals(), signals_before);
    // What is open beside is the two requests' connections, close-on-exec: a child gets nothing.
    for (const int fd : descriptors()) {
        const int flags = fcntl(fd, F_GETFD); // the listing's own is gone
        EXPECT_TRUE(kOneTable || before.count(fd) || flags < 0 || flags & FD_CLOEXEC) << fd;
    }
    running.clear(); // which waits for them
    g_name_server_silent = false;
    EXPECT_EQ(signals(), signals_before);
    tavrik_ubus_deinit();
    sim::call("clear");
    EXPECT_EQ(query(), "0 1 success");
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(query_http_file_is_exist(servers.url("https").c_str()), 0);
    EXPECT_EQ(descriptors(), before);
    for (int i = 0; i < 2000 && checks(); ++i) // the one that the name server kept goes, too
        usleep(10000);
    EXPECT_EQ(checks(), 0);
}

} // namespace

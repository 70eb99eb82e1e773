// Firmware upgrade in the simulated module: what servers answer, what the service gets, and what its answers make of
// it.
#include "support/descriptors.h"
#include "support/http_servers.h"
#include "support/sim.h"

#include "bus.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <netdb.h>
#include <thread>

namespace {

using nlohmann::json;
using Texts = std::vector<std::string>;

std::atomic<bool> g_name_server_silent{false};

} // namespace

// A name server that keeps libcurl waiting for ever.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char *node, const char *service,
                                                                  const addrinfo *hints, addrinfo **result) {
    while (node && !strcmp(node, "stuck.invalid") && g_name_server_silent)
        usleep(10000);
    return reinterpret_cast<decltype(&::getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"))(node, service, hints, result);
}

namespace {

class Upgrade : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        for (const char *name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            unsetenv(name);
        servers = new HttpServers;
        HttpServers::trust(true);
    }
    static void TearDownTestSuite() { delete servers; }
    Upgrade() {
        sim::call("reset");
        sim::call("state", {{"ota_ms", 20}});
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT); // for sim::log_of()
        servers->requests();
    }
    ~Upgrade() override { sim::call("reset"); }

    static HttpServers *servers;
};
HttpServers *Upgrade::servers;

// What a call returns, and with `log` what it logs, in which the reason that libcurl gives is cut out.
int check(const std::string &url, std::string *log = nullptr) {
    int result = 0;
    const std::string all = sim::log_of([&] { result = query_http_file_is_exist(url.c_str()); });
    if (log)
        *log = std::regex_replace(all, std::regex("debug query_http_file_is_exist: "), "");
    return result;
}

std::vector<std::string> descriptors() {
    std::vector<std::string> all;
    DIR *folder = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(folder))
        all.push_back(entry->d_name);
    closedir(folder);
    std::sort(all.begin(), all.end());
    return all;
}

std::vector<std::string> dispositions() {
    std::vector<std::string> all;
    for (int signal = 1; signal < 32; ++signal) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        all.push_back(std::to_string(reinterpret_cast<uintptr_t>(action.sa_handler)));
    }
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
    const std::string url = servers->url("http");
    const std::string log = sim::log_of([&] {
        const NoDescriptors none;
        EXPECT_EQ(Tavrik_Upgrade_Through_HTTP(url.c_str()), -1);
    });
    EXPECT_TRUE(std::regex_match(log, std::regex("query_http_file_is_exist: libcurl.so.4 cannot be loaded: .+\n"
                                                 "Tavrik_Upgrade_Through_HTTP: This url can't get upgrde package\n")))
        << log;
    std::atomic<int> good{0};
    std::vector<std::thread> threads; // that load it together
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { good += !query_http_file_is_exist(url.c_str()); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(good, 4);
}

TEST_F(Upgrade, WhatServersAnswer) {
    const std::string certificate = "no answer: .*certificate.*\n", none = "no answer: .+\n";
    const struct {
        std::string url, log; // "" for a URL that is there
    } cases[] = {
        {servers->url("http"), ""},
        {servers->url("http", "200", "localhost"), ""},
        {servers->url("http", "slow"), ""},
        {servers->url("http", "body"), ""},
        {servers->url("http", "201"), "answered with 201\n"},
        {servers->url("http", "302"), "answered with 302\n"},
        {servers->url("http", "404"), "answered with 404\n"},
        {servers->url("http", "503"), "answered with 503\n"},
        {servers->url("http", "reset"), none},
        {servers->url("http", "close"), none},
        {servers->url("http", "garbage"), none},
        {servers->url(""), none},
        {"http://", none},
        {"http://" + std::string(100000, 'x'), none},
        {"file:///etc/passwd", none},
        {"ftp" + servers->url("http").substr(4), none},
        {servers->url("https"), ""},
        {servers->url("https", "200", "localhost"), ""},
        {servers->url("https", "302"), "answered with 302\n"},
        {servers->url("https", "404"), "answered with 404\n"},
        {servers->url("https", "reset"), none},
        {servers->url("wrong_host"), certificate},
        {servers->url("expired"), certificate},
        {servers->url("stranger"), certificate},
        {"https" + servers->url("http").substr(4), none},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.url.substr(0, 100));
        std::string log;
        EXPECT_EQ(check(c.url, &log), c.log.empty() ? 0 : -1);
        EXPECT_TRUE(std::regex_match(log, std::regex(c.log))) << log;
    }
    EXPECT_EQ(servers->requests(),
              "HEAD /200 HTTP/1.1;HEAD /200 HTTP/1.1;HEAD /slow HTTP/1.1;HEAD /body HTTP/1.1;HEAD /201 HTTP/1.1;"
              "HEAD /302 HTTP/1.1;HEAD /404 HTTP/1.1;HEAD /503 HTTP/1.1;HEAD /reset HTTP/1.1;HEAD /close HTTP/1.1;"
              "HEAD /garbage HTTP/1.1;HEAD /200 HTTP/1.1;HEAD /200 HTTP/1.1;HEAD /302 HTTP/1.1;HEAD /404 HTTP/1.1;"
              "HEAD /reset HTTP/1.1;");
    HttpServers::trust(false);
    EXPECT_EQ(check(servers->url("https")), -1);
    HttpServers::trust(true); // from the next check on
    EXPECT_EQ(check(servers->url("https")), 0);
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(query_http_file_is_exist(nullptr), -1);
                  EXPECT_EQ(query_http_file_is_exist(""), -1);
              }),
              "query_http_file_is_exist: Param is NULL\nquery_http_file_is_exist: Param is error\n");
    EXPECT_EQ(write_data("abc", 1, 3, nullptr), 3u);
}

// One request for a download: what goes wrong with it, and what it leaves in the log and at the service.
struct Download {
    const char *what;
    json fault; // or null
    const char *argument;
    int result;
    std::string log;
    Texts wire;
};

void download(const char *name, int (*run)(const char *), const std::vector<Download> &cases) {
    for (const Download &c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.fault.is_null())
            sim::call("fault", c.fault);
        const auto log = [&] { EXPECT_EQ(run(c.argument), c.result); };
        EXPECT_EQ(sim::log_of(log), std::regex_replace(c.log, std::regex("@"), name));
        sim::call("clear");
        EXPECT_EQ(sim::recorded("ota"), c.wire);
        sim::call("state", {{"ota", "not start"}}); // so that the next one may start
    }
}

TEST_F(Upgrade, FromStorage) {
    const auto wire = [](const char *size, const std::string &path) {
        return Texts{std::string(R"(download {"type":2,"size":)") + size + R"(,"url":")" + path +
                     R"(","username":"","password":"","sync":1})"};
    };
    for (const auto &[path, size] :
         {std::pair("/tmp/package", 12345L), std::pair("/tmp/empty", 0L), std::pair("/tmp/large", 5L << 20)}) {
        std::ofstream file(path);
        file.close();
        ASSERT_EQ(truncate64(path, size == 5L << 20 ? 5LL << 30 : size), 0);
    }
    const std::string size = "info get_pkg_size: \n  file_size=", wait =
                                                                      "info @: \n  upgrade_through_sd(): Please wait "
                                                                      "30s,please reboot when Upgrade successfully\n";
    const std::string known = size + "12345\n";
    download("Tavrik_Upgrade_Through_SD", Tavrik_Upgrade_Through_SD,
             {{"taken", nullptr, "/tmp/package", 0, known + wait, wire("12345", "/tmp/package")},
              {"empty", nullptr, "/tmp/empty", 0, size + "0\n" + wait, wire("0", "/tmp/empty")},
              {"5 GiB", nullptr, "/tmp/large", 0, size + "5368709120\n" + wait, wire("1073741824", "/tmp/large")},
              {"no path", nullptr, nullptr, -1, "@: url is null\n", {}},
              {"no file", nullptr, "/tmp/none", -1, "@: get pkg size failed!\n", {}},
              {"empty path", nullptr, "", -1, "@: get pkg size failed!\n", {}},
              {"no service",
               {{"service", "ota"}, {"stop", true}},
               "/tmp/package",
               -1,
               known + "@: ubus lookup ota id failed!\n",
               {}},
              {"refused",
               {{"service", "ota"}, {"status", 9}},
               "/tmp/package",
               -1,
               known + wait + "@:  ubus_invoke OTA failed \n",
               wire("12345", "/tmp/package")},
              {"with a reply",
               {{"service", "ota"}, {"reply", {{"x", 1}}}},
               "/tmp/package",
               0,
               known + wait,
               wire("12345", "/tmp/package")}});
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    testing::internal::CaptureStderr();
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_Upgrade_Through_SD("/tmp/package"), -1); }),
              known + "Tavrik_Upgrade_Through_SD: Failed to connect to ubus\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to connect to ubus\n");
}

TEST_F(Upgrade, FromServer) {
    const std::string good = servers->url("http"), secure = servers->url("https"),
                      missing = servers->url("http", "404"), ftp = "ftp" + good.substr(4),
                      upper = "HTTP" + good.substr(4), wait = "info @:  Please wait for some time until appear hint\n",
                      scheme = "@:  Please add http or https when entering url parameters\n";
    const auto wire = [](const std::string &url) {
        return Texts{R"(download {"type":0,"url":")" + url + R"(","sync":1})"};
    };
    download("Tavrik_Upgrade_Through_HTTP", Tavrik_Upgrade_Through_HTTP,
             {{"taken", nullptr, good.c_str(), 0, wait, wire(good)},
              {"https", nullptr, secure.c_str(), 0, wait, wire(secure)},
              {"NULL", nullptr, nullptr, -1, "@:  Param is NULL\n", {}},
              {"empty", nullptr, "", -1, "@: Param is error\n", {}},
              {"ftp", nullptr, ftp.c_str(), -1, scheme, {}},
              {"upper case", nullptr, upper.c_str(), -1, scheme, {}},
              {"no slashes", nullptr, "http:/x", -1, scheme, {}},
              {"missing",
               nullptr,
               missing.c_str(),
               -1,
               "debug query_http_file_is_exist: answered with 404\n@: This url can't get upgrde package\n",
               {}},
              {"no bus", {{"service", "bus"}, {"stop", true}}, good.c_str(), -1, "@: Failed to connect to ubus\n", {}},
              {"no service", {{"service", "ota"}, {"stop", true}}, good.c_str(), -1, "", {}},
              {"refused", {{"service", "ota"}, {"status", 9}}, good.c_str(), -1, wait, wire(good)}});
    EXPECT_EQ(servers->requests(), "HEAD /200 HTTP/1.1;HEAD /200 HTTP/1.1;HEAD /404 HTTP/1.1;HEAD /200 HTTP/1.1;"
                                   "HEAD /200 HTTP/1.1;HEAD /200 HTTP/1.1;");
}

// The result, the code or "-", and the word of a query, or of one that is told no word.
std::string query(bool plain = false) {
    int32_t state = -7;
    char word[TAVRIK_UPDATE_WORD_SIZE] = "unwritten";
    const int result = plain ? Tavrik_Query_Update_State(&state) : Tavrik_Query_Update_StateEx(&state, word);
    return std::to_string(result) + " " + (state == -7 ? "-" : std::to_string(state)) + (plain ? "" : " ") +
           (plain ? "" : word);
}

json told(const json &response) {
    return {{"reply", {{"response", response}}}};
}

TEST_F(Upgrade, WhatTheServiceTells) {
    const std::string x(200, 'x');
    const struct {
        const char *what;
        json effect;
        std::string outcome;
        const char *logged; // the word in the log, or NULL without a line
    } cases[] = {
        {"updating", told("updating"), "0 0 updating", "updating"},
        {"more behind", told("updating 45%"), "0 0 updating 45%", "updating 45%"},
        {"success", told("success"), "0 1 success", "success"},
        {"failed", told("failed: checksum"), "0 2 failed: checksum", "failed: checksum"},
        {"not start", told("not started"), "0 3 not started", "not started"},
        {"unknown", told("flashing"), "-1 - flashing", "flashing"},
        {"upper case", told("Success"), "-1 - Success", "Success"},
        {"empty", told(""), "-1 - ", ""},
        {"short", told("succes"), "-1 - succes", "succes"},
        {"31 bytes", told("success" + x.substr(0, 24)), "0 1 success" + x.substr(0, 24),
         "successxxxxxxxxxxxxxxxxxxxxxxxx"},
        {"32 bytes", told("success" + x.substr(0, 25)), "0 1 success" + x.substr(0, 24),
         "successxxxxxxxxxxxxxxxxxxxxxxxx"},
        {"200 bytes", told("failed" + x.substr(6)), "0 2 failed" + x.substr(0, 25), "failedxxxxxxxxxxxxxxxxxxxxxxxxx"},
        // The last word stays.
        {"no field", {{"reply", {{"other", "success"}}}}, "0 2 failed" + x.substr(0, 25), nullptr},
        {"a number", told(1), "0 2 failed" + x.substr(0, 25), nullptr},
        {"a table", told({{"a", "success"}}), "0 2 failed" + x.substr(0, 25), nullptr},
        {"no end",
         {{"hex", "8300001400087265"
                  "73706f6e73650000"
                  "73756363"}},
         "0 2 failed" + x.substr(0, 25),
         nullptr},
        {"no message", {{"times", 0}}, "0 2 failed" + x.substr(0, 25), nullptr},
        {"no bytes", {{"raw", ""}}, "0 2 failed" + x.substr(0, 25), nullptr},
        {"a failure behind", {{"reply", {{"response", "success"}}}, {"status", 9}}, "-1 - ", "success"},
        {"the last counted", told(false), "0 1 success", nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        sim::fault("ota", "query", c.effect);
        std::string outcome;
        EXPECT_EQ(sim::log_of([&] { outcome = query(); }),
                  c.logged ? std::string("info query_update_state_cb:  g_update_state:") + c.logged + "\n" : "");
        EXPECT_EQ(outcome, c.outcome);
        EXPECT_EQ(query(true), c.outcome.substr(0, c.outcome.find(' ', 3)));
        sim::call("clear");
        EXPECT_EQ(sim::recorded("ota"), Texts(2, R"(query {"type":"1"})"));
    }
    const struct {
        const char *name;
        std::function<int()> run;
    } refused[] = {{"Tavrik_Query_Update_State", [] { return Tavrik_Query_Update_State(nullptr); }},
                   {"Tavrik_Query_Update_StateEx", [] {
                        int32_t state;
                        return Tavrik_Query_Update_StateEx(&state, nullptr);
                    }}};
    for (const auto &c : refused)
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(c.run(), -1); }), std::string(c.name) + ": Parameter input error\n");
    sim::call("fault", {{"service", "ota"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(query(), "-1 - "); }), "");
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(query(true), "-1 -"); }),
              "Tavrik_Query_Update_State: Failed to connect to ubus\n");
    sim::call("clear");
    blob_buf buffer = {};
    blob_buf_init(&buffer, 0);
    blobmsg_add_string(&buffer, "response", "failed");
    query_update_state_cb(nullptr, 0, buffer.head);
    query_update_state_cb(nullptr, 0, nullptr);
    blob_buf_free(&buffer);
    sim::fault("ota", "query", {{"times", 0}});
    EXPECT_EQ(query(), "0 2 failed");
}

// Each query counts its own word: as many of each as the service told.
TEST_F(Upgrade, QueriesAtOnce) {
    for (int i = 1; i <= 80; ++i)
        sim::call("fault", {{"service", "ota"},
                            {"nth", i},
                            {"delay", i % 7},
                            {"reply", {{"response", i % 2 ? "success" : "failed"}}}});
    std::atomic<int> counts[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                int32_t state = 0;
                EXPECT_EQ(Tavrik_Query_Update_State(&state), 0);
                counts[state & 3]++;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(counts[TAVRIK_UPDATE_SUCCESS], 40);
    EXPECT_EQ(counts[TAVRIK_UPDATE_FAILED], 40);
}

// All that has a limit, at the same time, and what the process looks like meanwhile and afterwards.
TEST_F(Upgrade, LimitsAndGuest) {
    tavrik_ubus_deinit(); // which keeps connections for later requests
    ASSERT_EQ(check(servers->url("http")), 0);
    ASSERT_EQ(query(), "0 3 not start");
    const Texts before = descriptors(), signals = dispositions();
    g_name_server_silent = true;
    sim::fault("ota", "query", {{"drop", true}});
    sim::fault("ota", "download*", {{"delay", 31000}});
    const std::string urls[] = {servers->url("mute"), servers->url("http", "drip"), "http://stuck.invalid/",
                                "https" + servers->url("mute").substr(4), servers->url("http")};
    const struct {
        std::function<int()> run;
        int result, least_ms;
    } cases[] = {{[&] { return query_http_file_is_exist(urls[0].c_str()); }, -1, 29995},
                 {[&] { return query_http_file_is_exist(urls[1].c_str()); }, -1, 29995},
                 {[&] { return query_http_file_is_exist(urls[2].c_str()); }, -1, 29995},
                 {[&] { return query_http_file_is_exist(urls[3].c_str()); }, -1, 9995},
                 {[&] { return Tavrik_Upgrade_Through_HTTP(urls[4].c_str()); }, 0, 30995},
                 {[] {
                      int32_t state;
                      return Tavrik_Query_Update_State(&state);
                  },
                  -1, 29995}};
    std::vector<std::thread> threads;
    for (const auto &c : cases)
        threads.emplace_back([&c] {
            using namespace std::chrono;
            const auto start = steady_clock::now();
            EXPECT_EQ(c.run(), c.result);
            const auto ms = duration_cast<milliseconds>(steady_clock::now() - start).count();
            EXPECT_GE(ms, c.least_ms);
            EXPECT_LT(ms, 60000);
        });
    sleep(5);
    EXPECT_EQ(dispositions(), signals);
    // What is open beside is the two requests' connections, close-on-exec: a child gets nothing.
    for (const std::string &descriptor : descriptors())
        if (!std::count(before.begin(), before.end(), descriptor)) {
            const int flags = fcntl(atoi(descriptor.c_str()), F_GETFD);
            EXPECT_TRUE(kOneTable || flags < 0 || flags & FD_CLOEXEC) << descriptor; // the listing's own is gone
        }
    for (std::thread &thread : threads)
        thread.join();
    g_name_server_silent = false;
    EXPECT_EQ(dispositions(), signals);
    tavrik_ubus_deinit();
    sim::call("clear");
    EXPECT_EQ(query(), "0 1 success");
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(check(servers->url("https")), 0);
    EXPECT_EQ(descriptors(), before);
    // The thread that the name server kept has gone, too.
    const auto left = [] {
        int count = 0;
        DIR *tasks = opendir("/proc/self/task");
        while (const dirent *entry = readdir(tasks)) {
            std::string name;
            std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), name);
            count += name == "tavrikcheck";
        }
        closedir(tasks);
        return count;
    };
    for (int i = 0; i < 2000 && left(); ++i)
        usleep(10000);
    EXPECT_EQ(left(), 0);
}

} // namespace

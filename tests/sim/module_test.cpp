// The simulated module as programs meet it: at its sockets and ports, on its files and links, with faults.
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <sstream>
#include <termios.h>

#include "support/shell.h"
#include "support/sim.h"

namespace {

// CR LF as "|", other bytes that cannot be printed in hexadecimal.
std::string shown(const std::string &bytes) {
    std::string text;
    char code[4];
    for (size_t i = 0; i < bytes.size(); i++) {
        snprintf(code, sizeof code, isprint(uint8_t(bytes[i])) ? "%c" : "\\%02x", uint8_t(bytes[i]));
        text += bytes.compare(i, 2, "\r\n") ? code : (++i, "|");
    }
    return text;
}

// One end of a socket or of a port.
class Wire {
  public:
    explicit Wire(const std::string &path)
        : fd_(path[1] == 'd' ? open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC) : socket(AF_UNIX, SOCK_STREAM, 0)) {
        termios line = {};
        sockaddr_un address = {AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (path[1] == 'd') {
            cfmakeraw(&line);
            cfsetspeed(&line, B115200);
            tcsetattr(fd_, TCSANOW, &line);
        } else if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address)) {
            error_ = std::string(strerror(errno)) + ": ";
        }
    }
    ~Wire() { close(fd_); }

    // What comes, until it is as long as what is wanted; "EOF" for the end.
    std::string ask(const std::string &text, const std::string &wanted) const {
        std::string got;
        EXPECT_TRUE(text.empty() || write(fd_, text.data(), text.size()) == ssize_t(text.size()));
        for (pollfd ready = {fd_, POLLIN, 0}; shown(got).size() < wanted.size() && poll(&ready, 1, 20000) == 1;) {
            char chunk[65536];
            const ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0)
                return error_ + shown(got) + "EOF";
            got.append(chunk, size_t(n));
        }
        return shown(got);
    }

  private:
    int fd_;
    std::string error_;
};

// A new module lives through steps, one a line, "WHO WHAT => ANSWER":
//   at, atind, tty, control   bytes on a connection (at2: on a second one), with | for CR LF; what comes on it, or
//                             how it begins (...)
//   sim                       verb and arguments of a control call; a part of the reply
//   sh                        a command; its output, with a blank for line ends
// A line that begins with a blank goes on with the one before.
class Module : public testing::Test {
  protected:
    Module() { sim::call("reset"); }
    static void live(const std::string &steps) {
        const std::string control = std::string(getenv("TAVRIK_SIM")) + "/control";
        const std::map<std::string, std::string> paths = {
            {"at", "/tmp/atcmdsdk"}, {"atind", "/tmp/atcmdsdkind"}, {"tty", "/dev/ttyS3"}, {"control", control}};
        std::map<std::string, Wire> wires;
        int listeners = 0;
        std::istringstream lines(std::regex_replace(steps, std::regex("\n +"), ""));
        for (std::string line; std::getline(lines, line);) {
            std::smatch step;
            SCOPED_TRACE(line);
            ASSERT_TRUE(
                std::regex_match(line, step, std::regex("(\\w+?)(\\d?)(?: (?!=>)(.*?))?(?: ?=> ?(.*?)(\\.{3})?)?|")));
            const std::string who = step[1], what = step[3], wanted = step[4];
            if (who == "sh") {
                const Ran ran = shell("exec 2>&1; export LC_ALL=C; " + what);
                const std::string text = std::regex_replace(ran.output, std::regex("^\\s+|\\s+$"), "");
                ASSERT_EQ(std::regex_replace(text, std::regex("\\s+"), " "), wanted);
            } else if (who == "sim") {
                const size_t verb = std::min(what.find(' '), what.size());
                const std::string arguments = verb == what.size() ? "{}" : what.substr(verb);
                const std::string reply = Wire(control).ask(
                    R"({"verb": ")" + what.substr(0, verb) + R"(", "args": )" + arguments + "}\n", "{");
                ASSERT_NE(reply.find(step[4].matched ? wanted : "{\"result\":"), std::string::npos) << reply;
            } else if (!who.empty()) {
                const auto [wire, opened] = wires.try_emplace(who + step[2].str(), paths.at(who));
                if (opened && who == "atind")
                    sim::call("wait", {{"kind", "connect"}, {"text", who}, {"count", ++listeners}});
                const std::string got = wire->second.ask(std::regex_replace(what, std::regex("\\|"), "\r\n"), wanted);
                ASSERT_EQ(step[5].matched ? got.substr(0, wanted.size()) : got.substr(0, 1000), wanted);
            }
        }
    }
};

TEST_F(Module, AnswersByItsRulesAndReportsAsItsSettingsSay) {
    live(R"~(
at AT+ECHO=1|AT+ECHO=2|AT+ECH => |+ECHO: 1||OK||+ECHO: 2||OK|
at2 AT+ECHO=a {b} ?| => |+ECHO: a {b} ?||OK|
at O=4|at+cfun?|AT+CFUN?x|BT|ATE1|AT| => |+ECHO: 4||OK||+CFUN: 1||OK||ERROR||ERROR||OK|AT\0d|OK|
sim rules {"add": [{"command": "AT+CFUN?", "when": {"mode": 0}, "final": "+CME ERROR: 3"}, {"command": "AT+S={mode},
  \"{imei}\";", "set": {"mode": "{mode}", "imei": "<{imei}>"}, "reply": "{imei}{mode}", "later": [{"after": 3600000,
  "line": "+LATE"}, {"after": 5, "line": "+{imei}"}]}, {"command": "AT+RAW", "lines": ["+RAW"], "final": null}]}
at AT+S=0,"9"| => AT+S=0,"9"\0d|ERROR|
at AT+S=x,"9";|ATE0| => AT+S=x,"9";\0d|ERROR|ATE0\0d|OK|
atind
at AT+CFUN?|AT+S=0,"9";|AT+CFUN?|AT+RAW| => |+CFUN: 1||OK|90|+CME ERROR: 3||+RAW|
sim advance {"ms": 3600000} => {"now":36
sim state => "imei":"<9>"
sim reset
atind => |+CREG: 0||+CGREG: 0||+CEREG: 0||+9||+LATE|
at AT+CFUN?| => |+CFUN: 1||OK|
sim state {"sim_error": 508}
at AT+CIMI|AT+CMEE=2|AT+CNUM| => |+CME ERROR: 508||OK||+CME ERROR: (U)SIM PUK blocked|
sim state {"creg": 2, "sim_error": 0}
sim state {"creg": 1, "area": 1, "cell": 5}
atind => |+CREG: 2||+CREG: 1,"0001","00000005",7||+CGREG: 1,"0001","00000005",7||+CEREG: 1,"0001","00000005",7|
  |+EEMLTESVC: 001,01,0001,0000005,1300,3,20,22,60,25,18|
at AT+CREG=3|AT+CREG=1|AT+CGREG=0|AT+CFUN=4|AT+CFUN=5| => |ERROR||OK||OK||OK||OK|
sim state {"sim": "SIM REMOVED", "act": 0, "rxlev": 30}
at AT+CFUN=1| => |OK|
atind => |+CREG: 0||+CEREG: 0||+CPIN: SIM REMOVED||+SIMCARD: 0||+CESQ: 30,99,255,255,25,60||+CREG: 1|
  |+CEREG: 1,"0001","00000005",0||+EEMGINFOSVC: 001,01,0001,0000005,1300,3,20,22,30|
)~");
}

// Contexts, and what is behind their links; the addresses of both families can be used at once.
TEST_F(Module, HasPacketData) {
    live(R"~(
at AT+ZGACT=1,1|AT*ZGDCONT=17,"IP","x",1|AT*ZGDCONT=2,"PPP","x",1| => |ERROR||ERROR||ERROR|
at AT*ZGDCONT=15,"IPV6","six",1|AT*ZGDCONT=1,"IPV4V6","a,b",0| => |OK||OK|
at AT+ZGACT=1,15|AT+ZGACT=1,1|AT+ZGACT=1,1| => |OK||OK||OK|
at AT+CGCONTRDP=?|AT*ZGDCONT=15|AT*ZGDCONT=7| => |+CGCONTRDP: (15,1)||OK||ERROR||OK|
at AT+CGDCONT?| => |+CGDCONT: 1,"IPV4V6","a,b"|+CGDCONT: 15,"IPV6","six"||OK|
sh curl -sS -m 20 -g --interface ccinet0 http://192.0.2.1/ http://[2001:db8::1]/x => ccinet0 ccinet0
sh curl -sS -m 20 -6 --interface ccinet14 http://b.example/; curl -sS -m 20 -4 http://a.example/ => ccinet14 ccinet0
sh python3 -c "import socket as s; p=s.socket(2,3,1); p.settimeout(20); p.sendto(b'\10\0\367\377\0\0\0\0',
  ('192.0.2.53',0)); print(p.recv(99)[20])" => 0
sh awk '/ccinet/ { print $1, $5, $6 }' /proc/net/if_inet6 | sort | head -n 2
  => 20010db8006400010000000000000002 82 ccinet0 20010db8006400150000000000000002 82 ccinet14
sh tail -n 3 /etc/resolv.conf => nameserver 192.0.2.54 nameserver 2001:db8::53 nameserver 2001:db8::54
sim context {"cid": 1, "state": 0} => "15"
at AT+CGATT=0|AT+ZGACT=1,1| => |OK||ERROR|
sh curl -sS -m 20 -6 --interface ccinet14 http://b.example/; ifconfig | grep -c ccinet0; ifconfig ccinet0 up
  => ccinet14 0
sim reset
sh ifconfig | grep ccinet; grep ccinet /proc/net/route; cat /etc/resolv.conf =>
)~");
}

// Of replies, of connections, and of lines, of which a piece comes when the one before was read.
TEST_F(Module, HasFaults) {
    live(R"~(
sim fault {"service": "at", "match": "AT+ECHO=*", "split": [3, 5], "nth": 2}
at AT+ECHO=1| => |+ECHO: 1||OK|
at AT+ECHO=2| => |+
at => EC
at => HO: 2||OK|
sim fault {"service": "at", "match": "AT+CFUN=*", "error": "+CME ERROR: SIM busy", "count": 1}
sim fault {"service": "at", "match": "*=0", "error": 10, "count": 2}
at AT+CFUN=0|AT+CFUN?| => |+CME ERROR: SIM busy||+CFUN: 1||OK|
at AT+CFUN=0|AT+CFUN=0| => |+CME ERROR: 10||OK|
sim fault {"service": "at", "drop": true, "count": 1}
at AT|AT+CFUN?| => |+CFUN: 0||OK|
sim fault {"service": "at", "hex": "000dff", "close": true}
at AT| => \00\0d\ff
at => EOF
sim fault {"service": "at", "freeze": true}
at2 AT| =>
sim clear {"service": "at"} => "removed":2
at2 => |OK|
sim fault {"service": "at", "refuse": true}
at3 => Connection refused: EOF
at2 AT| => |OK|
sim fault {"service": "at", "stop": true}
at4 => No such file or directory: EOF
at2 => EOF
sim clear
at5 AT| => |OK|
atind
atind2
sim line {"text": "\r\n+CREG: 1\r\n", "cuts": [3, 8], "limit": 50} => a client does not read
atind => |+
atind => CREG:
sim line {"hex": "ff", "limit": 50} => a client does not read
atind =>  1|\ff
atind2 => |+
atind2 => CREG:
atind2 =>  1|\ff
sim fault {"service": "atind", "flood": "+X\r\n"}
atind => +X|+X|...
)~");
}

TEST_F(Module, ControlKeepsOrderAndTheBusComesBack) {
    live(R"~(
control {"verb": "wait", "args": {"kind": "none", "limit": 20}}|{"verb": "verbs"}|
  => {"error":"only 0 of 1 in time"}\0a{"result":{"verbs"...
control2 {"verb": "state", "args": [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[|
  => {"error":"nested too deeply...
sh serial_atcmd AT+ECHO=first; echo second >/dev/kmsg => +ECHO: first OK
sim wait {"kind": "kmsg", "text": "s*d"}
sim record {"kind": "at", "limit": 1} => "text":"AT+ECHO=first"
sim record {"kind": "connect", "clear": true} => "text":"at"
sim record => {"dropped":0,"entries":[],"last":
sh kill -KILL $(tavrik-sim call --print /pids/bus state)
sim wait {"kind": "service", "text": "bus ended by signal 9"}
sim state => "bus":0
sim reset
sim fault {"service": "bus", "freeze": true}
sim fault {"service": "bus", "restart": true}
sim fault {"service": "bus", "stop": true}
sim clear
sim state => "tavrik.sim":{"connected":true
sh kill -0 $(tavrik-sim call --print /pids/bus state)
)~");
}

// Packages of uci, the flash, the receiver's port and the lines of GPIO.
TEST_F(Module, HasPlacesOfItsOwn) {
    live(R"~(
sh cp /etc/config/wireless /tmp/before; uci set wireless.AP0_2G.x=1; uci commit; uci delete wireless.AP0_2G.x;
  uci commit; diff /etc/config/wireless /tmp/before; uci -d + export network | grep -c 'list dns' => 2
sh uci set wireless.AP0_2G.country=US; touch /etc/config/data_profile /etc/stat/data_statistics
sim uci {"package": "wireless", "text": "config wifi-device 'AP0_2G'\n\tlist country 'de'\n"}
sh uci get wireless.AP0_2G.country => de
sim fault {"service": "etc", "lock": "none"} => /etc/config/none: No such file
sim fault {"service": "etc", "lock": "network"}
sh timeout 0.2 uci show network || echo $?; flock -n /etc/config/dhcp true => 124
sim reset
sh ls -A /etc/config /etc/stat /tmp/.uci; flock -n /etc/config/network uci get wireless.AP0_2G.country
  => /etc/config: dhcp network wireless /etc/stat: /tmp/.uci: DE
sim state => "settings":{"clocal":false,"echo":true
tty
sim state => "settings":{"clocal":false,"echo":false,"raw":true,"rtscts":false,"speed":115200,"stop_bits":1
sim nmea {"text": "$GNRMC\r\n", "cuts": {"every": 3}, "limit": 50} => nobody reads
tty => $GN
tty => RMC
tty => |
sim fault {"service": "gnss", "garble": 4}
sim nmea {"text": "$GNRMC\r\n"}
tty => $GN\d2MC\0d\8a
sim clear
sh printf '$GNRMC,1\n$GNGSA\n$GNRMC,2\n$GNRMC,3\n' >/tmp/track
sim gnss {"track": "/tmp/track", "hz": 1, "loop": true, "play": true} => "epochs":3,
sim fault {"service": "gnss", "burst": 4}
sim advance {"ms": 30000} => {"now":3
tty => $GNRMC,1|$GNGSA|$GNRMC,2|$GNRMC,3|$GNRMC,1|$GNGSA|...
tty $RESET,1|rest =>
sim wait {"kind": "ttyS3", "text": "rest"}
sim record {"kind": "ttyS3", "text": "$RESET*"} => "text":"$RESET,1\r\n"
sim gnss {"play": false}
sh cd /sys/class/gpio; echo 5 >export; until [ -e gpio5/value ]; do sleep 0.01; done; echo high >gpio5/direction
sim wait {"kind": "gpio", "text": "gpio5/direction high"}
sim state => {"5":{"active_low":"0","direction":"out","value":"1"}}
sim state => "play":true
)~");
}

} // namespace

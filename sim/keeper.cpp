#include "keeper.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "module.h"
#include "places.h"
#include "programs.h"
#include "sandbox.h"

namespace tavrik::sim {
namespace {

constexpr int start_limit_ms = 30000; // a scenario may do much before the program starts
constexpr int stop_limit_ms = 5000;

long now_ms() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

int left_ms(long deadline) {
    return static_cast<int>(std::max(0L, deadline - now_ms()));
}

std::vector<pid_t> children() {
    std::vector<pid_t> pids;
    std::ifstream file("/proc/thread-self/children");
    for (pid_t pid; file >> pid;)
        pids.push_back(pid);
    return pids;
}

class Keeper {
  public:
    Keeper(const RunOptions &options, const StateFolder &state, const Inherited &inherited, int outer)
        : options_(options),
          state_(state),
          inherited_(inherited),
          outer_(outer) {
        sigset_t set = handled_signals();
        signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    }

    // Never returns into the outer process's code.
    [[noreturn]] void run() {
        int code = exit_simulator_failed;
        try {
            enter();
            if (start_module()) {
                start_program();
                while (!ended_)
                    wait_for_event(-1);
            }
            stop();
            code = end_like(result());
        } catch (const std::exception &error) {
            fprintf(stderr, "tavrik-sim: %s\n", error.what());
            stop();
        }
        _exit(code);
    }

  private:
    void enter() {
        char byte = 0;
        if (recv(outer_, &byte, 1, 0) != 1 || byte != mapped)
            _exit(exit_simulator_failed); // The outer process said why.
        try {
            part_from_host();
        } catch (const std::system_error &error) {
            say_refused(error.what());
            _exit(exit_simulator_failed);
        }
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        taps_ = build_sandbox();
        // The folder that the caller was in may lie hidden below one of the new mounts.
        if (!inherited_.folder.empty() && chdir(inherited_.folder.c_str()) < 0)
            fprintf(stderr, "tavrik-sim: %s: %s\n", inherited_.folder.c_str(), strerror(errno));
    }

    bool has_bus() const {
        const std::vector<std::string> &without = options_.without;
        return std::find(without.begin(), without.end(), "bus") == without.end();
    }

    // True when it is ready; false when it ended, or we are to end, before.
    bool start_module() {
        std::string daemon = has_bus() ? find_bus_daemon() : "";
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) < 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        module_ = fork();
        if (module_ < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (module_ == 0) {
            close(ready[0]);
            module_process(daemon, ready[1]);
        }
        close(ready[1]);
        long deadline = now_ms() + start_limit_ms;
        while (!ended_ && !wait_for_event(left_ms(deadline), ready[0])) {
            if (now_ms() >= deadline)
                throw std::runtime_error("the module did not start in time");
        }
        char byte;
        bool is_ready = !ended_ && read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        if (!ended_ && !is_ready)
            wait_for_module();
        return is_ready;
    }

    [[noreturn]] void module_process(const std::string &daemon, int ready) {
        become_child();
        setsid();
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig = 1; sig < 32; sig++)
            signal(sig, SIG_DFL);
        int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(null, STDIN_FILENO);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        close(outer_);
        close(signals_);
        ModuleOptions module;
        module.scenario = options_.scenario;
        module.without = options_.without;
        module.control_path = state_.control_path();
        module.at_path = at_server_path;
        module.atind_path = "/tmp/atcmdsdkind";
        module.bus_path = "/var/run/ubus/ubus.sock";
        module.bus_daemon = daemon;
        module.taps = taps_;
        module.ready_fd = ready;
        int code = 1;
        try {
            code = run_module(module);
        } catch (const std::exception &error) {
            fprintf(stderr, "tavrik-sim: module process: %s\n", error.what());
        }
        exit(code);
    }

    void start_program() {
        program_ = fork();
        if (program_ < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (program_ > 0)
            return;
        become_child();
        setenv("TAVRIK_SIM", state_.path().c_str(), 1);
        setenv("PATH", search_path().c_str(), 1);
        std::vector<char *> argv;
        for (const std::string &argument : options_.program)
            argv.push_back(const_cast<char *>(argument.c_str()));
        argv.push_back(nullptr);
        umask(inherited_.umask_bits);
        sigaction(SIGCHLD, &inherited_.sigchld, nullptr);
        sigprocmask(SIG_SETMASK, &inherited_.mask, nullptr);
        execvp(argv[0], argv.data());
        int error = errno;
        fprintf(stderr, "tavrik-sim: %s: %s\n", argv[0], strerror(error));
        _exit(error == ENOENT ? 127 : 126);
    }

    void become_child() const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != self_)
            _exit(exit_simulator_failed);
    }

    // Handles what comes until something did or the time is up. True when there is something to read from `extra`.
    bool wait_for_event(int timeout_ms, int extra = -1) {
        struct pollfd fds[] = {{outer_, POLLIN, 0}, {signals_, POLLIN, 0}, {extra, POLLIN, 0}};
        if (poll(fds, 3, timeout_ms) <= 0)
            return false;
        if (fds[0].revents)
            obey();
        struct signalfd_siginfo info;
        while (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            // The terminal and whoever addresses the whole process group reach the program themselves.
            if (info.ssi_signo != SIGCHLD && program_ <= 0)
                end(static_cast<int>(info.ssi_signo));
        }
        reap();
        return fds[2].revents != 0;
    }

    // The outer process sends the signals to pass on; its death is the end.
    void obey() {
        char sig = 0;
        if (recv(outer_, &sig, 1, 0) != 1)
            end(SIGKILL);
        else if (program_ > 0)
            kill(program_, sig);
        else
            end(sig);
    }

    void reap() {
        int status;
        for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == program_)
                end(status);
            if (pid == module_) {
                module_status_ = status;
                module_ = -1;
                if (program_ > 0 && !ended_)
                    fprintf(stderr, "tavrik-sim: the module process ended before the program\n");
            }
        }
    }

    void end(int status) {
        if (!ended_)
            status_ = status;
        ended_ = true;
    }

    void wait_for_module() {
        for (long deadline = now_ms() + stop_limit_ms; module_ > 0 && now_ms() < deadline;)
            wait_for_event(left_ms(deadline));
    }

    // Takes down what the program left running, the module process in peace, and whatever it left.
    void stop() {
        end(0);
        int lifeline = outer_;
        outer_ = -1; // Its end would be reported again and again.
        for (pid_t pid : children()) {
            if (pid != module_)
                kill(pid, SIGKILL);
        }
        if (module_ > 0) {
            kill(module_, SIGTERM);
            kill(module_, SIGCONT);
            wait_for_module();
        }
        for (long deadline = now_ms() + stop_limit_ms; now_ms() < deadline;) {
            std::vector<pid_t> left = children();
            if (left.empty())
                break;
            for (pid_t pid : left)
                kill(pid, SIGKILL);
            wait_for_event(100);
        }
        state_.remove();
        outer_ = lifeline;
    }

    // The program's status; a module process that failed, as a sanitizer's finding lets it, spoils a success.
    int result() const {
        int failed = exit_simulator_failed << 8;
        int sig = WIFSIGNALED(module_status_) ? WTERMSIG(module_status_) : 0;
        bool crashed = sig == SIGSEGV || sig == SIGBUS || sig == SIGABRT || sig == SIGILL || sig == SIGFPE;
        if (crashed)
            fprintf(stderr, "tavrik-sim: the module process died: %s\n", strsignal(sig));
        bool failed_module = crashed || (WIFEXITED(module_status_) && WEXITSTATUS(module_status_) != 0);
        return status_ == 0 && (failed_module || program_ <= 0) ? failed : status_;
    }

    const RunOptions &options_;
    const StateFolder &state_;
    const Inherited &inherited_;
    int outer_;
    int signals_ = -1;
    pid_t self_ = getpid();
    pid_t module_ = -1, program_ = -1;
    int module_status_ = 0;
    bool ended_ = false;
    int status_ = 0; // as waitpid tells it
    std::vector<Tap> taps_;
};

} // namespace

sigset_t handled_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2})
        sigaddset(&set, sig);
    return set;
}

void say_refused(const char *why) {
    fprintf(stderr, "tavrik-sim: user namespaces are refused here (%s); see \"Requirements\" in docs/simulator.md\n",
            why);
}

int end_like(int status) {
    if (!WIFSIGNALED(status))
        return WEXITSTATUS(status);
    int sig = WTERMSIG(status);
    struct rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    signal(sig, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    raise(sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    return 128 + sig;
}

void keep_sandbox(const RunOptions &options, const StateFolder &state, const Inherited &inherited, int outer) {
    Keeper(options, state, inherited, outer).run();
}

} // namespace tavrik::sim

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "services/context.h"

namespace tavrik::sim {

namespace {

// The bus daemon, a child process. When it dies by itself it stays dead until somebody restarts it.
class BusDaemon : public Service {
  public:
    explicit BusDaemon(Context &context) : context_(context), process_{} {
        process_.cb = [](uloop_process *process, int status) { static_cast<Process *>(process)->owner->ended(status); };
        process_.owner = this;
    }
    ~BusDaemon() override { end(); }

    void start() override;
    void stop() override { end(); }
    std::string_view effects() const override { return "freeze stop restart"; }
    void stand(const Standing &standing) override;
    nlohmann::json describe() const override { return {{"pid", process_.pid}}; }

  private:
    struct Process : uloop_process {
        BusDaemon *owner;
    };

    void end();
    void ended(int status);
    void tell();

    Context &context_;
    Process process_; // pid 0 while there is none
    Standing standing_;
    uint64_t started_ = 0;
};

// Runs in the child, where only calls that are safe between fork and exec are allowed.
[[noreturn]] void become_daemon(const ModuleOptions &options, pid_t parent, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127);
    // What the event loop has set for itself.
    for (int number : {SIGPIPE, SIGINT, SIGTERM, SIGCHLD})
        signal(number, SIG_DFL);
    const char *path = options.bus_daemon.c_str();
    execlp(path, path, "-s", options.bus_path.c_str(), static_cast<char *>(nullptr));
    int error = errno;
    (void)!write(report, &error, sizeof error);
    _exit(127);
}

void BusDaemon::start() {
    if (process_.pid)
        return;
    int report[2];
    if (pipe2(report, O_CLOEXEC))
        throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0)
        become_daemon(context_.options, parent, report[1]);
    int error = pid < 0 ? errno : 0;
    close(report[1]);
    if (pid > 0 && read(report[0], &error, sizeof error) > 0)
        waitpid(pid, nullptr, 0);
    close(report[0]);
    if (error)
        throw std::runtime_error("cannot start " + context_.options.bus_daemon + ": " + strerror(error));
    process_.pid = pid;
    started_++;
    uloop_process_add(&process_);
    if (standing_.freeze)
        kill(pid, SIGSTOP);
    tell();
}

void BusDaemon::end() {
    if (!process_.pid)
        return;
    uloop_process_delete(&process_);
    kill(process_.pid, SIGKILL);
    waitpid(std::exchange(process_.pid, 0), nullptr, 0);
    tell();
}

void BusDaemon::ended(int status) {
    process_.pid = 0;
    tell();
    context_.record.add("service", 0,
                        WIFSIGNALED(status) ? "bus ended by signal " + std::to_string(WTERMSIG(status))
                                            : "bus ended with " + std::to_string(WEXITSTATUS(status)));
}

void BusDaemon::tell() {
    context_.bus_running = process_.pid && !standing_.freeze ? started_ : 0;
}

void BusDaemon::stand(const Standing &standing) {
    bool restart = standing_.stop && !standing.stop;
    if (standing.freeze != standing_.freeze && process_.pid)
        kill(process_.pid, standing.freeze ? SIGSTOP : SIGCONT);
    standing_ = standing;
    if (standing.stop)
        end();
    else if (restart)
        start();
    tell();
}

} // namespace

std::unique_ptr<Service> make_bus_daemon(Context &context) {
    return std::make_unique<BusDaemon>(context);
}

} // namespace tavrik::sim

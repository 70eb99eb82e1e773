#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <unistd.h>

#include "call.h"
#include "serial.h"
#include "services/service.h"
#include "supervisor.h"

namespace {

void add_run_options(CLI::App *command, tavrik::sim::RunOptions &options) {
    command->add_option("--scenario", options.scenario, "JSON file of calls to make before and during the run")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    std::string services = "Service that is not started, one or more of:";
    for (const tavrik::sim::ServiceRow *row = tavrik::sim::service_rows; row->name; row++)
        services += std::string(" ") + row->name;
    command->add_option("--without", options.without, services)->type_name("SERVICE")->take_all();
    command->add_option("--name", options.name, "Name for --sim of `call`; a free one unless given")->type_name("NAME");
}

} // namespace

int main(int argc, char **argv) {
    using namespace tavrik::sim;
    // What stands behind -- is the program's, and CLI11 takes no part in it.
    int own = 1;
    while (own < argc && strcmp(argv[own], "--") != 0)
        own++;

    if (argc == 3 && strcmp(argv[1], "serial_atcmd") == 0) // for the script of that name inside
        return serial_atcmd(argv[2]);

    CLI::App app("tavrik-sim: runs a program inside a simulated module");
    app.set_version_flag("--version", "tavrik-sim " TAVRIK_VERSION);
    app.require_subcommand(1);

    RunOptions options;
    CLI::App *run_command = app.add_subcommand("run", "Run a program; ends as the program ends");
    run_command->footer("The program and its arguments follow: tavrik-sim run [OPTIONS] -- PROGRAM [ARGUMENT]...");
    add_run_options(run_command, options);
    CLI::App *shell_command = app.add_subcommand("shell", "Open a shell in a module of its own");
    add_run_options(shell_command, options);

    std::string sim, verb, arguments, print;
    CLI::App *call_command = app.add_subcommand("call", "Make a control call to a running module");
    call_command->add_option("--sim", sim, "The module: the one around, else the newest one unless given")
        ->type_name("NAME");
    call_command->add_option("--print", print, "What to print of the result, a JSON pointer; a text as it is")
        ->type_name("POINTER");
    call_command->add_option("verb", verb, "What to do: state, reset, line, record, …")->required()->type_name("VERB");
    call_command->add_option("json", arguments, "Arguments, a JSON object")->type_name("JSON");

    try {
        app.parse(own, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    try {
        if (call_command->parsed())
            return call(sim, verb, arguments, print);
        options.program.assign(argv + (own < argc ? own + 1 : own), argv + argc);
        if (shell_command->parsed() && options.program.empty()) {
            const char *shell = getenv("SHELL");
            options.program = {shell && *shell ? shell : "/bin/sh"};
        }
        if (options.program.empty() || (shell_command->parsed() && own < argc)) {
            fprintf(stderr, "tavrik-sim: usage: tavrik-sim run [OPTIONS] -- PROGRAM [ARGUMENT]...\n");
            return 2;
        }
        return run(options);
    } catch (const std::exception &error) {
        fprintf(stderr, "tavrik-sim: %s\n", error.what());
        return call_command->parsed() ? 1 : exit_simulator_failed;
    }
}

// tavrikctl: the command line over the public API.
#include "command.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <sys/stat.h>
#include <tavrik_sdk.h>
#include <unistd.h>

namespace tavrikctl {
namespace {

Table command_table() {
    return {{switch_option("--json", "Print JSON instead of text, an object a line"),
             number_option("--log", "MODE", "Where the library logs to; mode 0 goes to standard error here", 0, 3, "1"),
             switch_option("--version", "Print the version and exit"), switch_option("--help", "Print help and exit")},
            {dm_family(), uim_family(), nw_family(), call_family(), data_family(), ecall_family(), sms_family(),
             gnss_family(), pm_family(), upgrade_family(), wifi_family(), monitor_family(), at_family(), log_family()}};
}

CLI::Option *add(CLI::App &app, const Parameter &parameter) {
    const std::string help = parameter.help;
    if (parameter.name == "--help")
        return app.set_help_flag("-h,--help", help);
    if (parameter.name == "--version")
        return app.set_version_flag("--version", "tavrikctl " TAVRIK_SDK_VERSION, help);
    if (!parameter.one_of.empty()) {
        CLI::Option_group *group = nullptr;
        for (CLI::App *known : app.get_subcommands(nullptr))
            if (known->get_group() == parameter.one_of)
                group = static_cast<CLI::Option_group *>(known);
        if (!group) {
            group = app.add_option_group(parameter.one_of);
            group->group(parameter.one_of)->require_option(1);
        }
        return group->add_flag(parameter.name, help);
    }
    if (parameter.is_switch())
        return app.add_flag(parameter.name, help);
    CLI::Option *option = app.add_option(parameter.name, help)->expected(parameter.words)->type_size(1);
    option->type_name(parameter.value)->required(parameter.required);
    if (!parameter.choices.empty())
        option->check(CLI::IsMember(parameter.choices));
    if (parameter.is_number())
        option->check(CLI::Range(parameter.least, parameter.most));
    if (!parameter.fallback.empty())
        option->default_str(parameter.fallback);
    return option;
}

Arguments arguments_of(const CLI::App &app, const std::vector<Parameter> &parameters) {
    Arguments arguments;
    for (const Parameter &parameter : parameters) {
        const CLI::Option *option = app.get_option(parameter.name);
        if (option->count())
            arguments.set(parameter.name, option->results());
        else if (!parameter.fallback.empty())
            arguments.set(parameter.name, {parameter.fallback});
    }
    return arguments;
}

// An AT server or a bus: one of the two is there even when the other has died.
bool on_module() {
    struct stat status;
    if (stat("/tmp/atcmdsdk", &status) == 0 && S_ISSOCK(status.st_mode))
        return true;
    ubus_context *context = tavrik_get_ubus_ctx();
    tavrik_free_ubus_ctx(context);
    return context != nullptr;
}

int run(const Verb &verb, const Arguments &arguments, const Arguments &options) {
    const int log_mode = int(options.number("--log"));
    Tavrik_Switch_Log_Mode(log_mode);
    FILE *file = stdout;
    if (log_mode == TAVRIK_LOG_STDOUT) {
        // The library prints to descriptor 1: what scripts read moves away from it, and it joins standard error.
        const int ours = dup(STDOUT_FILENO);
        file = ours < 0 ? nullptr : fdopen(ours, "w");
        if (!file || dup2(STDERR_FILENO, STDOUT_FILENO) < 0 || setvbuf(stdout, nullptr, _IOLBF, 0) != 0) {
            fail("cannot divert standard output");
            return kFailed;
        }
    }
    if (verb.needs_module && !on_module()) {
        fail("no module here: run it on one, or inside a simulated one (tavrik-sim run -- tavrikctl ...)");
        return kFailed;
    }
    Output output(file, options.has("--json"));
    return verb.run(arguments, output) ? kDone : failure();
}

int command_line(int argc, char **argv) {
    const Table table = command_table();
    CLI::App app("Command line of the Tavrik SDK: drives the LTE module that it runs on.", "tavrikctl");
    app.require_subcommand(1)->fallthrough();
    for (const Parameter &option : table.options)
        add(app, option);
    std::vector<std::pair<CLI::App *, const Verb *>> verbs;
    for (const Family &family : table.families) {
        CLI::App *commands = app.add_subcommand(family.name, family.help);
        for (const Verb &verb : family.verbs) {
            CLI::App *command = verb.name.empty() ? commands : commands->add_subcommand(verb.name, verb.help);
            for (const Parameter &parameter : verb.parameters)
                add(*command, parameter);
            verbs.emplace_back(command, &verb);
            commands->require_subcommand(verb.name.empty() ? 0 : 1);
        }
    }
    // For the build: what it installs beside the program.
    app.add_subcommand("completion")->group("");
    app.add_subcommand("man")->group("");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    if (app.got_subcommand("completion") || app.got_subcommand("man")) {
        const std::string text = app.got_subcommand("man") ? man_page(table) : completion(table);
        return fputs(text.c_str(), stdout) >= 0 && fflush(stdout) == 0 ? kDone : kFailed;
    }
    for (const auto &[command, verb] : verbs)
        if (command->parsed())
            return run(*verb, arguments_of(*command, verb->parameters), arguments_of(app, table.options));
    return kUsage;
}

} // namespace
} // namespace tavrikctl

int main(int argc, char **argv) {
    return tavrikctl::command_line(argc, argv);
}

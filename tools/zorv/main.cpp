// zorv: the operators' tool for an allow-listing deployment. It drives the
// engine through its exports only, as any agent does.
#include <cstdlib>
#include <map>

#include "Commands.h"
#include "HostEngine.h"

int main(int argc, char** argv) {
    using namespace zorv::cli;
    CLI::App app("zorv: build, inspect and try out a Zorv rule store", "zorv");
    app.set_version_flag("--version", "zorv 12.0.193");
    app.require_subcommand(1, 1);
    // CLI11 reads /x as an option on Windows by default; a POSIX-style path
    // such as /usr/bin/ls must stay an argument everywhere.
    app.allow_windows_style_options(false);
    app.footer(
        "Exit status:\n"
        "  0  success\n"
        "  1  a blocked verdict (check) or a damaged store (db check)\n"
        "  2  usage error\n"
        "  3  engine or input error");

    CommonOptions common;
    if (const char* fromEnvironment = std::getenv("ZORV_DB"); fromEnvironment != nullptr && *fromEnvironment)
        common.db = fromEnvironment;
    app.add_option("--db", common.db, "The store file (default $ZORV_DB, else ./ac.db)");
    if (const char* fromEnvironment = std::getenv("ZORV_SOCKET"); fromEnvironment != nullptr && *fromEnvironment)
        common.socket = fromEnvironment;
    app.add_option("--socket", common.socket,
                   "Act on a running zorvd through its control socket (default $ZORV_SOCKET): import, metrics, "
                   "status, mode, maintenance, ps");
    app.add_option("--log", common.log, "Write the engine's log to FILE, or to standard error with -");
    // Checked while the line is read, so that a wrong level is a usage error
    // like any other, before a store is opened.
    app.add_option("--log-level", common.logLevel, "error, warning, info (default with --log) or trace")
        ->check(CLI::Validator(
            [](const std::string& level) {
                return zorv::host::ParseLogLevel(level) ? std::string()
                                                        : "not one of error, warning, info, trace or a mask 0..15";
            },
            "LEVEL"));
    app.add_flag("--json", common.json, "Print results as JSON");
    app.add_flag("-q,--quiet", common.quiet, "Print nothing but errors and requested data");

    std::map<CLI::App*, CommandRun> runs;
    for (const CommandEntry& entry : kCommands) {
        CLI::App* command = app.add_subcommand(entry.name, entry.summary);
        command->fallthrough();
        runs[command] = entry.define(*command, common);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kExitUsage;
    }
    for (auto& [command, run] : runs) {
        if (command->parsed()) {
            try {
                return run();
            } catch (const std::exception& error) {
                PrintError(command->get_name(), error.what());
                return kExitError;
            }
        }
    }
    return kExitUsage;
}

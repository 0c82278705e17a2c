// cvn: columnar data files from the command line. Here are the list of subcommands, the exit status and the
// one place where failures are printed; each subcommand is a source of its own.
#include <fmt/format.h>
#include <signal.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>
#include <sstream>

#include "tools/commands.h"
#include "tools/tool.h"

constexpr char DESCRIPTION[] =
    "Make, inspect, check and read columnar data files (.cvn).\n"
    "\n"
    "A first tour:\n"
    "  cvn create orders.cvn orders.csv           a file from CSV; the types are chosen from a sample\n"
    "  cvn info orders.cvn                        its columns, rows, sizes, minima and maxima\n"
    "  cvn cat orders.cvn --where 'qty > 10'      its rows, filtered\n"
    "  cvn verify orders.cvn                      every checksum, size and statistic, proved\n"
    "  cvn split orders.cvn orders.split          one file per column, for scans of few columns\n"
#ifdef CVN_REMOTE
    "\n"
    "And with a server, the daemon kelpd:\n"
    "  export KELPD_URL=kelp://localhost:8642     what the names below are looked up in\n"
    "  cvn put orders.cvn shop/public/orders      a file becomes part of a table\n"
    "  cvn ls shop/public/orders                  the table's files\n"
    "  cvn query shop/public/orders --where 'qty > 10' --format table\n"
#endif
    "\n"
    "'cvn COMMAND --help' tells more about each.";

constexpr char FOOTER[] =
#ifndef CVN_REMOTE
    "This cvn was built without the client library, so it lacks the commands that talk to a server: ls, put, "
    "rm, meta,\n"
    "count, query, get and sample.\n"
#endif
    "Exit status: 0 success, 1 failure, 2 wrong usage.";

// The list of subcommands shows the first paragraph of each description; the rest is told by its own --help,
// last.
static void shorten(CLI::App* sub) {
    const std::string text = sub->get_description();
    const size_t cut = text.find("\n\n");
    if (cut == std::string::npos) return;
    sub->description(text.substr(0, cut));
    sub->footer("\n" + text.substr(cut + 2));
}

static int run(int argc, char** argv) {
    tool_catch_signals();
    CLI::App app{DESCRIPTION, "cvn"};
    app.set_version_flag("--version", "cvn " CVN_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return fmt::format("cvn: {}\nRun 'cvn --help', or 'cvn COMMAND --help', for how to use it.\n",
                           error.what());
    });
    app.footer(FOOTER);
    int ret = 0;
    create_register(&app, &ret);
    info_register(&app, &ret);
    cat_register(&app, &ret);
    verify_register(&app, &ret);
    split_register(&app, &ret);
#ifdef CVN_REMOTE
    remote_register(&app, &ret);
#endif
    for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) shorten(sub);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream said;
        const int code = app.exit(error, std::cout, said);
        (void)tool_tell(said.str());
        return code == 0 ? 0 : 2;
    } catch (const tool_usage& error) {
        tool_say(error.what());
        return 2;
    } catch (const tool_error& error) {
        tool_say(error.what());
        return 1;
    } catch (const tool_pipe_closed&) {
        return 0;
    } catch (const tool_interrupted& stop) {
        signal(stop.signal, SIG_DFL);
        raise(stop.signal);
        return 1;
    } catch (const std::bad_alloc&) {
        tool_say("out of memory");
        return 1;
    } catch (const std::exception& error) {
        tool_say(fmt::format("internal error: {}", error.what()));
        return 1;
    }
    return ret;
}

// NOLINTNEXTLINE(bugprone-exception-escape): what is not caught in run() can only be want of memory
int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        // Before the command had begun, or while the failure was put into words.
        fputs("cvn: out of memory\n", stderr);
    }
    return 1;
}

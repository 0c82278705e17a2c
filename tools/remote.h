// What the commands that talk to a server share: where a table is, how a failure is told, and output that
// appears whole or not at all.
#ifndef KELPD_TOOLS_REMOTE_H
#define KELPD_TOOLS_REMOTE_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "clients/cpp/client.h"
#include "tools/tool.h"

// The place that an argument names: a URL, or a path, which is looked up below the one in KELPD_URL (with a
// slash in front below its server's root). An empty text is the place in KELPD_URL itself. Throws tool_usage.
kelp_url_t remote_url(const std::string& text);

// The same, of `least` to `most` components; `what` names such a place in the message.
kelp_url_t remote_url(const std::string& text, int least, int most, const char* what);

// The name of a place: "database/schema/entity", or its server.
std::string remote_name(const kelp_url_t& url);

// What every command can be told about its requests.
struct remote_opts_t {
    int timeout = 60;  // seconds of silence
    std::string
        cacert;  // certificates to trust in place of the system's; empty: those that KELPD_CACERT names
};

// Adds --timeout and --cacert to a command.
void remote_add_options(CLI::App* sub, remote_opts_t* remote);

// Shows `args` as the arguments of a command in its help, where one list stands for several.
void remote_usage(CLI::App* sub, const char* args);

// What holds for the requests of a command: its options, and an end when a signal asks for it.
kelp_opt_t remote_opt(const remote_opts_t& remote);

// Reports what a request about `url` failed with: what is wrong, what the server said, what to try. Throws
// tool_error, or tool_interrupted when a signal was the reason.
[[noreturn]] void remote_fail(const kelp_url_t& url, const kelp_error_t& err);

// The same unless `code` is 0.
inline void remote_check(int code, const kelp_url_t& url, const kelp_error_t& err) {
    if (code != 0) remote_fail(url, err);
}

// A file that is written under a temporary name beside its own and gets it by remote_target_commit; else it
// vanishes, and what stood there stays. Devices and pipes are written straight.
struct remote_target_t {
    std::string path, temp;
    int fd = -1;
    bool committed = false;

    remote_target_t() = default;
    remote_target_t(const remote_target_t&) = delete;
    remote_target_t& operator=(const remote_target_t&) = delete;
    ~remote_target_t();
};

// Opens it. A symbolic link stays one, also when what it leads to is still to be made, and the mode of a file
// that is replaced is kept. Throws tool_error.
void remote_target_open(remote_target_t* target, const std::string& path);

// Closes and renames. Throws tool_error.
void remote_target_commit(remote_target_t* target);

// The commands, each half in a source of its own.
void remote_catalog_register(CLI::App* app, int* ret);
void remote_query_register(CLI::App* app, int* ret);

#endif

// Places, failures and output files of the commands that talk to a server.
#include "tools/remote.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tools/commands.h"

constexpr char NO_KELPD_HINT[] = "is it a kelpd? check host and port";

static kelp_url_t parse(const std::string& text, const char* where) {
    kelp_url_t url;
    kelp_error_t err;
    if (kelp_url_parse(&url, text, &err) != 0)
        throw tool_usage(fmt::format("{}{}; {}", where, err.text, err.hint));
    return url;
}

static kelp_url_t parent_of(kelp_url_t url) {
    for (std::string* part : {&url.partition, &url.entity, &url.schema, &url.database})
        if (!part->empty()) {
            part->clear();
            break;
        }
    return url;
}

// Returns where a symbolic link leads that leads to nothing yet, or `path` if it is none.
static std::string follow_links(std::string path) {
    constexpr int MAX_LINKS = 40;  // as the kernel's
    char to[PATH_MAX];
    for (int i = 0; i < MAX_LINKS; i++) {
        const ssize_t n = readlink(path.c_str(), to, sizeof(to));
        if (n <= 0 || n == static_cast<ssize_t>(sizeof(to))) return path;
        const std::string next(to, static_cast<size_t>(n));
        const size_t slash = path.rfind('/');
        path = next[0] == '/' || slash == std::string::npos ? next : path.substr(0, slash + 1) + next;
    }
    throw tool_error(path + ": " + tool_strerror(ELOOP));
}

namespace {

struct usage_t : CLI::Formatter {
    std::string args;
    std::string make_usage(const CLI::App*, std::string name) const override {
        return fmt::format("{}: {} [{}] {}\n", get_label("Usage"), name, get_label("OPTIONS"), args);
    }
};

}  // namespace

kelp_url_t remote_url(const std::string& text) {
    if (text.find("://") != std::string::npos) return parse(text, "");
    const char* const base_text = getenv("KELPD_URL");
    const size_t at = text.rfind('@');  // what stands in front of it may be a password
    const std::string shown = at == std::string::npos ? text : "***" + text.substr(at);
    if (!base_text || !*base_text)
        throw tool_usage(
            fmt::format("{}; write kelp://host:port/database/schema/entity, or set KELPD_URL to "
                        "kelp://host:port and leave that part out",
                        text.empty() ? "a URL is missing" : tool_quote(shown) + " names no server"));
    kelp_url_t base = parse(base_text, "KELPD_URL: ");
    if (text.empty()) return base;
    if (text[0] == '/') base.database = base.schema = base.entity = base.partition = "";
    const size_t from = std::min(text.find_first_not_of('/'), text.size());
    return parse(kelp_url_format(base, false) + "/" + text.substr(from), "");
}

kelp_url_t remote_url(const std::string& text, int least, int most, const char* what) {
    kelp_url_t url = remote_url(text);
    const int depth = kelp_url_depth(url);
    if (depth < least || depth > most)
        throw tool_usage(fmt::format("{} is not {}; a URL is kelp://host:port/database/schema/entity/file",
                                     kelp_url_format(url, true), what));
    return url;
}

std::string remote_name(const kelp_url_t& url) {
    std::string out;
    for (const std::string* part : {&url.database, &url.schema, &url.entity, &url.partition})
        if (!part->empty()) out += (out.empty() ? "" : "/") + *part;
    return out.empty() ? kelp_url_format(url, true) : out;
}

void remote_add_options(CLI::App* sub, remote_opts_t* remote) {
    sub->add_option(
           "--timeout", remote->timeout,
           fmt::format("Give up after this many seconds of silence; 0 never (default: {})", remote->timeout))
        ->check(CLI::Range(0, 2000000));
    sub->add_option("--cacert", remote->cacert,
                    "For https: a file with the certificates to trust (default: KELPD_CACERT, else the "
                    "system's)");
}

void remote_usage(CLI::App* sub, const char* args) {
    auto usage = std::make_shared<usage_t>();
    usage->args = args;
    sub->formatter(usage);
}

kelp_opt_t remote_opt(const remote_opts_t& remote) {
    kelp_opt_t opt;
    opt.idle_timeout_ms = remote.timeout * 1000;
    opt.ca_file = remote.cacert;
    const char* const cacert = getenv("KELPD_CACERT");
    if (opt.ca_file.empty() && cacert) opt.ca_file = cacert;
    opt.cancel = tool_stop_flag();
    return opt;
}

void remote_fail(const kelp_url_t& url, const kelp_error_t& err) {
    tool_check_signals();
    const std::string place = kelp_url_format(url, true);
    std::string text = err.text, hint = err.hint;
    // A number alone is what is left of a page of markup, which kelpd does not send.
    const bool only_number =
        err.said[0] != '\0' &&
        std::all_of(err.said, err.said + strlen(err.said), [](char ch) { return ch >= '0' && ch <= '9'; });
    if (only_number && (err.code == KELP_ENOTFOUND || err.code == KELP_EREFUSED) && err.http_status != 401 &&
        err.http_status != 403 && err.http_status != 413)
        hint = NO_KELPD_HINT;
    else if (err.code == KELP_ENOTFOUND && err.http_status == 404)
        hint = fmt::format("'cvn ls {}' lists what is there", kelp_url_format(parent_of(url), true));
    if (kelp_url_depth(url) > 0 && text.find(place) == std::string::npos)
        text = remote_name(url) + ": " + text;
    if (!hint.empty()) text += "; " + hint;
    throw tool_error(text);
}

remote_target_t::~remote_target_t() {
    if (fd >= 0) (void)close(fd);
    if (!committed && !temp.empty()) (void)unlink(temp.c_str());
}

void remote_target_open(remote_target_t* target, const std::string& path) {
    struct stat st;
    target->path = path;
    if (char* const real = realpath(path.c_str(), nullptr)) {
        target->path = real;
        free(real);
    } else if (stat(path.c_str(), &st) != 0) {
        target->path = follow_links(path);
    }
    const bool exists = stat(target->path.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) throw tool_error(path + ": is a directory");
    if (exists && !S_ISREG(st.st_mode)) {
        target->fd = open(target->path.c_str(), O_WRONLY | O_CLOEXEC);
        if (target->fd < 0) throw tool_error(path + ": " + tool_strerror(errno));
        return;
    }
    target->temp = tool_temp_create(target->path, &target->fd);
    if (exists) (void)fchmod(target->fd, st.st_mode & 07777);  // where that is not allowed, the umask rules
}

void remote_target_commit(remote_target_t* target) {
    const int fd = target->fd;
    target->fd = -1;
    if (fd >= 0 && close(fd) != 0) throw tool_error(target->path + ": " + tool_strerror(errno));
    if (target->temp.empty()) return;
    tool_check_signals();
    if (rename(target->temp.c_str(), target->path.c_str()) != 0)
        throw tool_error(target->path + ": " + tool_strerror(errno));
    target->committed = true;
}

void remote_register(CLI::App* app, int* ret) {
    remote_catalog_register(app, ret);
    remote_query_register(app, ret);
}

// cvn split: one file per column.
#include <errno.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/commands.h"
#include "tools/source.h"
#include "tools/tool.h"

namespace {

struct split_opts_t {
    std::string file, dir;
};

int split_run(const split_opts_t& opts) {
    struct stat st;
    if (stat(opts.file.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw tool_error(opts.file + ": is a directory; only a data file can be split");
    const std::string meta = opts.dir + "/meta.cvnx";
    // The library ends without a word when a page cannot be read. Then no meta.cvnx appears, so an older one
    // has to go first, or it would be taken for the new one and describe other columns.
    {
        const source_scan_t probe(opts.file);
        if (unlink(meta.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
            throw tool_error(meta + ": " + tool_strerror(errno));
    }
    errno = 0;
    const int code = cvnx_split(opts.dir.c_str(), opts.file.c_str());
    if (code == -3) throw tool_error(opts.dir + ": " + tool_strerror(errno));
    if (code != 0) throw tool_error(tool_code_text(code, errno, opts.file));
    if (stat(meta.c_str(), &st) != 0)
        throw tool_error(
            fmt::format("{}: a page cannot be read, the split is incomplete; 'cvn verify {}' tells where",
                        opts.file, opts.file));
    return 0;
}

}  // namespace

void split_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<split_opts_t>();
    CLI::App* const sub =
        app->add_subcommand("split",
                            "Rewrite a data file as a directory with one file per column.\n"
                            "\n"
                            "A scan of a few columns then reads these columns' files alone. info, cat and "
                            "verify take the directory\n"
                            "wherever they take a file. The directory is made if it is missing; it is "
                            "complete when its meta.cvnx\n"
                            "appears, which comes last.\n"
                            "\n"
                            "Example:\n"
                            "  cvn split orders.cvn orders.split && cvn cat orders.split --columns id,qty");
    sub->add_option("FILE", opts->file, "The data file")->required();
    sub->add_option("DIR", opts->dir, "The directory to write")->required();
    sub->callback([opts, ret] { *ret = split_run(*opts); });
}

// cvn verify: everything that a data file claims, proved against its bytes. All faults are reported, up to a
// bound, and a fault in one chunk does not hide those after it. The checks keep a walk of their own over the
// file, on purpose: what shared the library's walk would share its mistakes (verify.h says more).
#include "tools/verify.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <xxhash.h>

#include <algorithm>

#include "tools/commands.h"
#include "tools/source.h"

static constexpr int64_t MAX_FAULTS = 100;  // printed for one file; the rest is counted

// Stored bytes are hashed in blocks, whatever a chunk claims to be long.
static constexpr size_t HASH_BLOCKSZ = 1 << 20;

void verify_t::fault(const std::string& what) {
    if (++nfault <= MAX_FAULTS) out->buf += fmt::format("{}: {}\n", path, what);
    tool_out_spill(out);
}

void verify_open(verify_fd_t* file, const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw tool_error(tool_strerror(errno));
    if (!S_ISREG(st.st_mode)) throw tool_error("is not a regular file");
    file->fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file->fd < 0 || fstat(file->fd, &st) != 0) throw tool_error(tool_strerror(errno));
    file->size = st.st_size;
}

bool verify_read_at(const verify_fd_t& file, void* to, size_t nb, int64_t offset) {
    for (size_t done = 0; done < nb;) {
        const ssize_t n =
            pread(file.fd, static_cast<char*>(to) + done, nb - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) {
            tool_check_signals();
            continue;
        }
        if (n == 0) errno = 0;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string verify_read_fault() {
    return errno != 0 ? tool_strerror(errno) : "the file has become shorter meanwhile";
}

bool verify_hash_at(const verify_fd_t& file, int64_t offset, int64_t nb, uint32_t* ret) {
    static std::vector<char> buf(HASH_BLOCKSZ);  // one for all chunks
    XXH32_state_t* const state = XXH32_createState();
    if (!state) throw std::bad_alloc();
    (void)XXH32_reset(state, 0);  // both fail only for a null state
    bool good = true;
    while (nb > 0 && good) {
        const auto part = static_cast<size_t>(std::min<int64_t>(nb, HASH_BLOCKSZ));
        good = verify_read_at(file, buf.data(), part, offset);
        if (good) (void)XXH32_update(state, buf.data(), part);
        offset += static_cast<int64_t>(part);
        nb -= static_cast<int64_t>(part);
    }
    *ret = XXH32_digest(state);
    XXH32_freeState(state);
    return good;
}

int64_t verify_file(const std::string& path, tool_out_t* out, int64_t* ret_nrow) {
    verify_t v;
    v.path = path;
    v.out = out;
    struct stat st;
    v.split = stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    try {
        verify_open(&v.data, v.split ? path + "/meta.cvnx" : path);
    } catch (const tool_error& error) {
        throw tool_error(path + ": " + error.what());
    }
    progress_t progress;
    if (verify_check_frame(&v)) {
        verify_check_columns(&v);
        int64_t total = v.split ? 0 : v.footer_offset;
        bool pages = true;
        if (v.split) {
            verify_check_split_hash(&v);
            tool_allow_files(2 * static_cast<int64_t>(v.schema.ncol));  // here and in the library
            v.split_file = std::vector<verify_fd_t>(static_cast<size_t>(v.schema.ncol));
            for (int c = 0; c < v.schema.ncol; c++) {
                const std::string name = fmt::format("{}/{}.cvnx", path, c);
                try {
                    verify_open(&v.split_file[c], name);
                } catch (const tool_error& error) {
                    v.fault(fmt::format("{}.cvnx: {}", c, error.what()));
                    pages = false;
                }
                total += v.split_file[c].size;
            }
        }
        progress_begin(&progress, total, "row groups");
        cvn_scan_t* scan = nullptr;
        const int code = cvn_scan_open(&scan, path.c_str());
        if (code != 0) {
            v.fault(fmt::format("the library refuses to open it ({})", code));
        } else {
            const struct closer_t {
                cvn_scan_t* scan;
                ~closer_t() { (void)cvn_scan_close(scan); }  // always 0
            } closer = {scan};
            const std::vector<int> page_index = verify_require_columns(&v, scan);
            if (pages) verify_check_chunks(&v, scan, page_index, &progress);
            for (int c = 0; c < v.schema.ncol; c++) verify_check_colstat(&v, c);
        }
    }
    progress_end(&progress);
    if (v.nfault > MAX_FAULTS)
        out->buf += fmt::format("{}: and {} more faults\n", path, v.nfault - MAX_FAULTS);
    if (v.nfault == 0)
        out->buf += fmt::format(
            "{}: good: {}, {}, {}, {} stored\n", path, tool_counted(v.schema.nrow, "row", "rows"),
            tool_counted(v.schema.nrowgroup, "row group", "row groups"),
            tool_counted(v.schema.ncol, "column", "columns"), tool_bytes(static_cast<double>(v.nbyte)));
    *ret_nrow = tool_add(*ret_nrow, v.schema.nrow);
    return v.nfault;
}

static int verify_run(const std::string& path) {
    const rows::file_list_t source = source_find(path);
    const auto nfile = static_cast<int64_t>(source.path.size());
    tool_out_t out;
    out.optional = true;  // the status is what scripts ask for
    int64_t nbad = 0, nunread = 0, nrow = 0;
    for (const std::string& file : source.path) {
        try {
            nbad += verify_file(file, &out, &nrow) > 0;
        } catch (const tool_error& error) {
            if (!source.many) throw;
            out.buf += std::string(error.what()) + "\n";
            nunread++;
        }
        tool_out_flush(&out);
    }
    const bool good = nbad == 0 && nunread == 0;
    if (source.many && good)
        out.buf += fmt::format("{}: {}, all good, {}\n", path, tool_counted(nfile, "file", "files"),
                               tool_counted(nrow, "row", "rows"));
    else if (source.many)
        out.buf += fmt::format("{}: {} of {} are damaged{}\n", path, tool_count(nbad),
                               tool_counted(nfile, "file", "files"),
                               nunread > 0 ? fmt::format(", {} cannot be read", tool_count(nunread)) : "");
    tool_out_flush(&out);
    return good ? 0 : 1;
}

void verify_register(CLI::App* app, int* ret) {
    auto path = std::make_shared<std::string>();
    CLI::App* const sub = app->add_subcommand(
        "verify",
        "Prove every claim of a data file, a split directory, or each file of a directory.\n"
        "\n"
        "Checked are the magics, all sizes and offsets, the hash of the footer and of every chunk, that each "
        "chunk\n"
        "decompresses to its size, its values and null bitmap, and every count, minimum and maximum. Each "
        "fault is one\n"
        "line that names the row group and the column. The exit status is 1 when there is one.\n"
        "\n"
        "Example:\n"
        "  cvn verify orders.cvn && cp orders.cvn backup/");
    sub->add_option("PATH", *path, "The data file or directory")->required();
    sub->callback([path, ret] { *ret = verify_run(*path); });
}

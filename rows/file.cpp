#include "rows/file.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "colvane/colvane_int.h"  // cvn_pread_full, overlap_bearable

namespace rows {

// Faults. All return false.

static bool code_fault(file_fault_t* fault, const std::string& path, int code, int err) {
    *fault = {
        .kind = FILE_CODE, .code = code, .err = err, .path = path, .name = {}, .what = nullptr, .rg = -1};
    return false;
}

static bool place_fault(file_fault_t* fault, file_fault_kind_t kind, const std::string& path) {
    *fault = {.kind = kind, .code = 0, .err = 0, .path = path, .name = {}, .what = nullptr, .rg = -1};
    return false;
}

static bool page_fault(file_fault_t* fault, const file_t& file, int cno, int64_t rg, const char* what) {
    if (what == PAGE_NOMEM) return code_fault(fault, file.path, -2, 0);
    *fault = {.kind = FILE_PAGE,
              .code = 0,
              .err = 0,
              .path = file.path,
              .name = file.column[static_cast<size_t>(cno)].name,
              .what = what,
              .rg = rg};
    return false;
}

// Finding.

// What does not exist passes: opening it tells.
static bool check_kind(const std::string& path, file_fault_t* fault) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) return true;
    return place_fault(fault, FILE_OTHER, path);
}

bool file_find(file_list_t* ret, const std::string& path, file_fault_t* fault) {
    *ret = file_list_t{};
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return code_fault(fault, path, -3, errno);
    if (!check_kind(path, fault)) return false;
    struct stat meta;
    if (!S_ISDIR(st.st_mode) || stat((path + "/meta.cvnx").c_str(), &meta) == 0) {
        ret->path.push_back(path);
        return true;
    }
    DIR* const dir = opendir(path.c_str());
    if (!dir) return code_fault(fault, path, -3, errno);
    bool is_split = false;
    std::vector<std::string> found;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.ends_with(".cvn")) found.push_back(path + "/" + name);
        is_split = is_split || name.ends_with(".cvnx");
    }
    closedir(dir);
    if (found.empty()) return place_fault(fault, is_split ? FILE_UNFINISHED : FILE_NO_DATA, path);
    std::sort(found.begin(), found.end());
    ret->many = true;
    ret->path = std::move(found);
    return true;
}

// Opening.

std::string file_column_name(const cvn_coldef_t& coldef) {
    return {coldef.name, strnlen(coldef.name, CVN_NAME_SZ)};
}

void file_close(file_t* file) {
    if (file->pool) buf_put(file->pool.get(), file->stored);
    file->stored = buf_t{};
    if (file->scan) (void)cvn_scan_close(file->scan);  // always 0
    file->scan = nullptr;
}

file_t::~file_t() { file_close(this); }

bool file_open(file_t* ret, const std::string& path, std::shared_ptr<bufpool_t> pool, file_fault_t* fault) {
    if (!check_kind(path, fault) || !check_kind(path + "/meta.cvnx", fault)) return false;
    errno = 0;
    cvn_scan_t* scan = nullptr;
    if (const int code = cvn_scan_open(&scan, path.c_str())) return code_fault(fault, path, code, errno);
    ret->path = path;
    ret->scan = scan;
    ret->pool = std::move(pool);
    schema_desc_t schema;
    memcpy(&schema, scan->schema_buf, sizeof(schema));
    ret->nrow = schema.nrow;
    ret->nrowgroup = schema.nrowgroup;
    for (int c = 0; c < schema.ncol; c++) {
        cvn_coldef_t def;
        memcpy(static_cast<void*>(&def), scan->coldef + c, sizeof(def));
        ret->column.push_back({file_column_name(def), def.typ, def.zflag != 0, def.nflag != 0});
        if (scan->split_mode && !check_kind(path + "/" + std::to_string(c) + ".cvnx", fault)) return false;
    }
    return true;
}

bool file_want(file_t* file, std::span<const int> cno, file_fault_t* fault) {
    for (const int c : cno) {
        // The library goes by names, and means the first column of a name.
        const std::string& name = file->column[static_cast<size_t>(c)].name;
        const auto first = std::find_if(file->column.begin(), file->column.end(),
                                        [&](const file_column_t& other) { return other.name == name; });
        if (first - file->column.begin() != c || cvn_scan_add_required(file->scan, name.c_str()) != 0) {
            (void)place_fault(fault, FILE_SAME_NAME, file->path);
            fault->name = name;
            return false;
        }
        file->want.push_back(c);
    }
    return true;
}

bool file_push(file_t* file, const cond_t& cond, file_fault_t* fault) {
    std::vector<cond_push_t> push;
    cond_push(&push, cond, [file](int col) {
        return cond_prove(file->scan, col, file->column[static_cast<size_t>(col)].typ);
    });
    for (cond_push_t& p : push) {
        const std::string& name = file->column[static_cast<size_t>(p.col)].name;
        const int code = cvn_scan_add_lens(file->scan, name.c_str(), p.op, p.has_value ? 1 : 0,
                                           p.has_value ? &p.value : nullptr);
        if (code != 0) return code_fault(fault, file->path, code, 0);
    }
    // The library's own way to say that nothing qualifies.
    if (cond_is_never(cond)) (void)add_in(file->scan, "", 0, nullptr);  // 0 without elements
    return true;
}

bool file_next(file_t* file, int64_t* ret_rg, file_fault_t* fault) {
    errno = 0;
    const int code = cvn_scan_next_rowgroup(file->scan, ret_rg);
    if (code == 0) return true;
    *ret_rg = -1;
    return code == -4 || code_fault(fault, file->path, code, errno);
}

// Reading.

static bool buf_holds(const buf_t& buf, size_t nbyte) { return buf.p && buf.cap >= nbyte + BUF_SLACK; }

// Makes a buffer large enough for `nbyte`. False without memory.
static bool ensure_buf(bufpool_t* pool, buf_t* buf, size_t nbyte) {
    if (buf_holds(*buf, nbyte)) return true;
    buf_put(pool, *buf);
    *buf = buf_get(pool, nbyte);
    return buf->p != nullptr;
}

namespace {
// Where a page is, and what is in it.
struct place_t {
    int fd;
    int64_t offset;
    cvn_page_t head;
};
}  // namespace

// Finds the page of column `cno` and checks all that can be known of it before it is read.
static bool locate_page(place_t* ret, file_t* file, int cno, int64_t rg, int64_t nrow, file_fault_t* fault) {
    colmeta_t meta;
    errno = 0;
    if (const int code = cvn_scan_locate(file->scan, rg, cno, &ret->fd, &meta)) {
        if (code == -3 && errno == 0) return page_fault(fault, *file, cno, rg, "it lies outside the file");
        return code_fault(fault, file->path, code, errno);
    }
    ret->offset = meta.file_offset;
    ret->head = page_head(meta, cno, file->column[static_cast<size_t>(cno)].typ);
    const char* why = page_check(ret->head);
    if (!why && ret->head.nrow != nrow) why = "it has another number of rows than the row group";
    return why ? page_fault(fault, *file, cno, rg, why) : true;
}

// Bytes of the table of positions that values of varying width need.
static int64_t positions_size(cvn_typ_t typ, int64_t nrow) {
    return cvn_typlen(typ) < 0 ? (nrow + 1) * int64_t{sizeof(int32_t)} : 0;
}

bool file_prove(file_t* file, file_fault_t* fault) {
    // A split directory has a file per column, and so a sum per column.
    std::vector<int64_t> stored(file->scan->split_mode ? file->column.size() : 1);
    const int ncol = static_cast<int>(file->column.size());
    for (int64_t rg = 0; rg < file->nrowgroup; rg++) {
        const int64_t nrow = cvn_scan_get_rowgroup_size(file->scan, rg);
        for (int c = 0; c < ncol; c++) {
            place_t place;
            if (!locate_page(&place, file, c, rg, nrow, fault)) return false;
            struct stat st;
            if (fstat(place.fd, &st) != 0) return code_fault(fault, file->path, -3, errno);
            // Cannot overflow: neither the pages nor the bytes of one are more than 32 bits can count.
            int64_t& sum = stored[file->scan->split_mode ? static_cast<size_t>(c) : 0];
            sum += place.head.zbyte;
            if (!colvane::overlap_bearable(sum, st.st_size))
                return page_fault(fault, *file, c, rg, "it has its bytes in common with too many others");
        }
    }
    return true;
}

// Adds a buffer of `nbyte` bytes for which there is `have`.
static void add_need(file_need_t* need, const buf_t& have, int64_t nbyte) {
    if (nbyte == 0) return;
    const int64_t most = buf_most(nbyte);
    need->all += most;
    if (!buf_holds(have, static_cast<size_t>(nbyte))) need->more += most;
}

bool file_need(file_t* file, int64_t rg, std::span<const column_t> have, file_need_t* ret,
               file_fault_t* fault) {
    const int64_t nrow = cvn_scan_get_rowgroup_size(file->scan, rg);
    file_need_t need{};
    int64_t stored = 0;
    for (int c = 0; c < static_cast<int>(file->column.size()); c++) {
        place_t place;
        if (!locate_page(&place, file, c, rg, nrow, fault)) return false;
        const auto k = static_cast<size_t>(c);
        add_need(&need, k < have.size() ? have[k].value : buf_t{}, place.head.nbyte);
        add_need(&need, k < have.size() ? have[k].offset : buf_t{}, positions_size(place.head.typ, nrow));
        if (place.head.zbyte < place.head.nbyte) stored = std::max<int64_t>(stored, place.head.zbyte);
    }
    add_need(&need, file->stored, stored);
    *ret = need;
    return true;
}

// Reads the page of column `cno` to where it stays.
static bool read_page(file_t* file, int cno, int64_t rg, int64_t nrow, column_t* col, file_fault_t* fault) {
    const file_column_t& def = file->column[static_cast<size_t>(cno)];
    bufpool_t* pool = file->pool.get();
    place_t place;
    if (!locate_page(&place, file, cno, rg, nrow, fault)) return false;
    const cvn_page_t& head = place.head;
    buf_t* const buf = head.zbyte == head.nbyte ? &col->value : &file->stored;
    const auto nvalue = static_cast<size_t>(positions_size(def.typ, nrow));
    if (!ensure_buf(pool, &col->value, static_cast<size_t>(head.nbyte)) ||
        !ensure_buf(pool, buf, static_cast<size_t>(head.zbyte)) ||
        (nvalue > 0 && !ensure_buf(pool, &col->offset, nvalue)))
        return code_fault(fault, file->path, -2, 0);
    errno = 0;
    if (!colvane::cvn_pread_full(place.fd, buf->p, static_cast<size_t>(head.zbyte), place.offset))
        return code_fault(fault, file->path, -3, errno);
    const char* why = page_unpack(pool, &col->value, head, buf->p);
    if (!why) why = page_view(pool, col, head, def.name.c_str());
    return why ? page_fault(fault, *file, cno, rg, why) : true;
}

bool file_read(file_t* file, int64_t rg, std::vector<column_t>* ret, file_fault_t* fault) {
    const int64_t nrow = cvn_scan_get_rowgroup_size(file->scan, rg);
    if (nrow < 0) return code_fault(fault, file->path, -6, 0);
    ret->resize(file->want.size());
    for (size_t k = 0; k < file->want.size(); k++)
        if (!read_page(file, file->want[k], rg, nrow, &(*ret)[k], fault)) return false;
    return true;
}

}  // namespace rows

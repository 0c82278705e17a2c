// Head, trailer and footer of a data file: their magics, sizes and hash, the columns, and the statistics of
// the file against those of its chunks.
#include <fmt/format.h>
#include <string.h>
#include <xxhash.h>

#include <set>

#include "tools/schema.h"
#include "tools/verify.h"

size_t verify_colstat_at(const verify_t& v, int c) {
    return sizeof(schema_desc_t) + static_cast<size_t>(v.schema.ncol) * sizeof(cvn_coldef_t) +
           static_cast<size_t>(c) * sizeof(colstat_t);
}

size_t verify_rowgroup_at(const verify_t& v, int64_t rg) {
    const size_t recordsz = CVN_ROWGROUP_HEADSZ + static_cast<size_t>(v.schema.ncol) * sizeof(colmeta_t);
    return verify_colstat_at(v, v.schema.ncol) + static_cast<size_t>(rg) * recordsz;
}

colmeta_t verify_colmeta_at(const verify_t& v, int64_t rg, int c) {
    return verify_record_at<colmeta_t>(
        v, verify_rowgroup_at(v, rg) + CVN_ROWGROUP_HEADSZ + static_cast<size_t>(c) * sizeof(colmeta_t));
}

bool verify_check_frame(verify_t* v) {
    const int64_t size = v->data.size;
    char head[VERIFY_HEADSZ], tail[CVN_TRAILER_SZ];
    if (size < VERIFY_HEADSZ + CVN_TRAILER_SZ) {
        v->fault(fmt::format("is only {} bytes long; head and trailer alone take {}", size,
                             VERIFY_HEADSZ + CVN_TRAILER_SZ));
        return false;
    }
    if (!verify_read_at(v->data, head, sizeof(head), 0) ||
        !verify_read_at(v->data, tail, sizeof(tail), size - CVN_TRAILER_SZ)) {
        v->fault("cannot be read: " + verify_read_fault());
        return false;
    }
    if (memcmp(head, CVN_HEAD_MAGIC, sizeof(head)) != 0) v->fault("the head magic is not " CVN_HEAD_MAGIC);
    if (memcmp(tail + 12, CVN_TAIL_MAGIC, 4) != 0) {
        v->fault("the trailer magic is not " CVN_TAIL_MAGIC "; the file was cut or never completed");
        return false;
    }
    int64_t footersz;
    memcpy(&footersz, tail, sizeof(footersz));
    memcpy(&v->footer_hash, tail + 8, sizeof(v->footer_hash));
    if (footersz < static_cast<int64_t>(sizeof(schema_desc_t)) ||
        footersz > size - CVN_TRAILER_SZ - VERIFY_HEADSZ) {
        v->fault(fmt::format("the footer's size {} does not fit the file of {} bytes", footersz, size));
        return false;
    }
    v->footer_offset = size - CVN_TRAILER_SZ - footersz;
    v->footer.resize(static_cast<size_t>(footersz));
    if (!verify_read_at(v->data, v->footer.data(), v->footer.size(), v->footer_offset)) {
        v->fault("the footer cannot be read: " + verify_read_fault());
        return false;
    }
    if (!v->split && XXH32(v->footer.data(), v->footer.size(), 0) != v->footer_hash)
        v->fault(fmt::format("the footer's hash is {:08x}, the trailer says {:08x}",
                             XXH32(v->footer.data(), v->footer.size(), 0), v->footer_hash));

    const schema_desc_t schema = verify_record_at<schema_desc_t>(*v, 0);
    v->schema = schema;
    if (schema.version != 1) {
        v->fault(fmt::format("the footer's version is {}, not 1", schema.version));
        return false;
    }
    if (schema.ncol < 0 || schema.nrowgroup < 0 || schema.nrow < 0) {
        v->fault(fmt::format("a count in the footer is negative ({} columns, {} rows, {} row groups)",
                             schema.ncol, schema.nrow, schema.nrowgroup));
        return false;
    }
    // 128 bits hold any product of these.
    const cvn_int128_t coldefsz = static_cast<cvn_int128_t>(schema.ncol) * sizeof(cvn_coldef_t);
    const cvn_int128_t colstatsz = static_cast<cvn_int128_t>(schema.ncol) * sizeof(colstat_t);
    const cvn_int128_t rowgroupsz =
        static_cast<cvn_int128_t>(schema.nrowgroup) *
        (CVN_ROWGROUP_HEADSZ + static_cast<cvn_int128_t>(schema.ncol) * sizeof(colmeta_t));
    if (schema.coldefsz != coldefsz || schema.colstatsz != colstatsz ||
        static_cast<cvn_int128_t>(sizeof(schema_desc_t)) + coldefsz + colstatsz + rowgroupsz != footersz) {
        v->fault(fmt::format(
            "the footer's sizes do not add up: {} columns and {} row groups in {} bytes (definitions {}, "
            "statistics {})",
            schema.ncol, schema.nrowgroup, footersz, schema.coldefsz, schema.colstatsz));
        return false;
    }
    if (schema.rowgroupsz != rowgroupsz)
        v->fault(fmt::format("the footer says its row groups take {} bytes, they take {}", schema.rowgroupsz,
                             static_cast<int64_t>(rowgroupsz)));
    return true;
}

void verify_check_columns(verify_t* v) {
    std::set<std::string> names;
    for (int c = 0; c < v->schema.ncol; c++) {
        const auto col = verify_record_at<cvn_coldef_t>(
            *v, sizeof(schema_desc_t) + static_cast<size_t>(c) * sizeof(cvn_coldef_t));
        v->coldef.push_back(col);
        const std::string name = schema_name(col);
        const std::string what = fmt::format("column {} {}", c, tool_quote(name));
        if (name.empty()) v->fault(what + ": its name is empty");
        if (name.size() == CVN_NAME_SZ)
            v->fault(what + ": its name has no NUL");
        else
            for (size_t i = name.size(); i < CVN_NAME_SZ; i++)
                if (col.name[i] != 0) {
                    v->fault(what + ": bytes follow the NUL of its name");
                    break;
                }
        if (!names.insert(name).second)
            v->fault(what + ": another column has the same name; only the first can be read by it");
        if (strcmp(cvn_typ_str(col.typ), "unknown") == 0)
            v->fault(fmt::format("{}: its type {} is unknown", what, col.typ));
        if (col.zflag > 1 || col.nflag > 1) v->fault(what + ": a flag is neither 0 nor 1");
        if (col.padding[0] != 0 || col.padding[1] != 0)
            v->fault(what + ": the padding of its definition is not zero");
    }
}

void verify_check_colstat(verify_t* v, int c) {
    const cvn_typ_t typ = v->coldef[c].typ;
    const auto stat = verify_record_at<colstat_t>(*v, verify_colstat_at(*v, c));
    const std::string what = fmt::format("column {}", tool_quote(schema_name(v->coldef[c])));
    int64_t nnull = 0;
    bool any = false;
    cvn_datum_t min, max;
    memset(&min, 0, sizeof(min));
    memset(&max, 0, sizeof(max));
    const auto cmp = [typ](const cvn_datum_t& a, const cvn_datum_t& b) {
        if (cvn_storage(typ) == CVN_TYP_CSTR) return strncmp(a.raw, b.raw, sizeof(a.raw));
        return verify_stat_cmp(a, b, typ);
    };
    for (int64_t rg = 0; rg < v->schema.nrowgroup; rg++) {
        const colmeta_t m = verify_colmeta_at(*v, rg, c);
        nnull += m.nnull;
        if (!m.hasminmax || cvn_storage(typ) == CVN_TYP_BYTEA) continue;
        if (!any || cmp(m.minval, min) < 0) min = m.minval;
        if (!any || cmp(m.maxval, max) > 0) max = m.maxval;
        any = true;
    }
    if (stat.nnull != nnull)
        v->fault(fmt::format("{}: its chunks hold {} NULLs, the file's statistics say {}", what, nnull,
                             stat.nnull));
    if (stat.hasminmax != (any ? 1 : 0))
        v->fault(fmt::format("{}: the file's statistics {} a minimum and maximum, its chunks {}", what,
                             stat.hasminmax ? "have" : "lack", any ? "have them" : "do not"));
    else if (!verify_same_image(stat.minval, min) || !verify_same_image(stat.maxval, max))
        v->fault(any ? fmt::format("{}: its chunks range from {} to {}, the file's statistics say {} to {}",
                                   what, verify_image_text(min, typ), verify_image_text(max, typ),
                                   verify_image_text(stat.minval, typ), verify_image_text(stat.maxval, typ))
                     : what + ": a minimum or maximum stands in the file's statistics without being valid");
    if (stat.unused1 != 0 || stat.unused2 != 0 || stat.unused3 != 0 || stat.unused4 != 0)
        v->fault(what + ": unused bytes of its statistics are not zero");
}

void verify_check_split_hash(verify_t* v) {
    std::vector<char> footer = v->footer;
    int64_t offset = VERIFY_HEADSZ;
    for (int64_t rg = 0; rg < v->schema.nrowgroup; rg++)
        for (int c = 0; c < v->schema.ncol; c++) {
            const size_t at =
                verify_rowgroup_at(*v, rg) + CVN_ROWGROUP_HEADSZ + static_cast<size_t>(c) * sizeof(colmeta_t);
            memcpy(footer.data() + at, &offset, sizeof(offset));
            const int64_t zbyte = verify_colmeta_at(*v, rg, c).zbyte;
            if (zbyte < 0) return;  // reported with its chunk
            offset += (zbyte + 7) & ~int64_t{7};
        }
    const uint32_t hash = XXH32(footer.data(), footer.size(), 0);
    if (hash != v->footer_hash)
        v->fault(
            fmt::format("the footer's hash with the offsets of the file that was split is {:08x}, the "
                        "trailer says {:08x}",
                        hash, v->footer_hash));
}

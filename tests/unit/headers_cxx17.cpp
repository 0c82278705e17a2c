// The public headers as C++17: they compile without a warning and see the same records.
#include <colvane/colvane.h>
#include <colvane/mpool.h>

size_t cxx17_sizes(int which);

size_t cxx17_sizes(int which) {
    constexpr size_t SIZES[] = {sizeof(cvn_datum_t),   sizeof(colstat_t),      sizeof(colmeta_t),
                                sizeof(schema_desc_t), sizeof(cvn_coldef_t),   sizeof(cvn_t),
                                sizeof(cvn_scan_t),    sizeof(cvn_filestat_t), sizeof(lens_t),
                                sizeof(mpool_item_t),  sizeof(cvnx_split_t),   sizeof(colbuf_t),
                                sizeof(cvn_page_t),    sizeof(cvn_trailer_t),  sizeof(cvn_dec_parts_t)};
    return which < 15 ? SIZES[which] : 0;
}

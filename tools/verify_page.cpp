// Proving pages.
#include "tools/verify_page.h"

const char* verify_page_decode(verify_page_t* ret, cvn_typ_t typ, int64_t nrow, const char* body,
                               int64_t nbyte, int64_t nmapoff) {
    ret->typ = typ;
    ret->nrow = nrow;
    ret->width = cvn_typlen(typ);
    ret->value = body;
    ret->offset.clear();
    if (ret->width == 0) return "its type is unknown";
    if (nrow < 0 || nrow > INT32_MAX) return "its row count is negative or absurd";
    if (nbyte < 0 || nmapoff < 0 || nmapoff > nbyte) return "its null bitmap begins outside the page";
    if (nbyte - nmapoff != (nrow + 7) / 8) return "its null bitmap has not one bit for each row";
    ret->nmap = reinterpret_cast<const unsigned char*>(body) + nmapoff;
    if (ret->width > 0)
        return nrow * ret->width == nmapoff ? nullptr : "its values are not as many as its rows";
    if (nrow > nmapoff) return "its values are not as many as its rows";  // each takes a byte at least
    ret->offset.resize(static_cast<size_t>(nrow));
    int64_t at = 0;
    for (int64_t row = 0; row < nrow; row++) {
        ret->offset[row] = static_cast<uint32_t>(at);
        if (ret->width == -2) {
            const void* const end =
                at < nmapoff ? memchr(body + at, 0, static_cast<size_t>(nmapoff - at)) : nullptr;
            if (!end) return "its texts run past the values";
            at = static_cast<const char*>(end) - body + 1;
        } else {
            int32_t len;
            if (nmapoff - at < static_cast<int64_t>(sizeof(len)))
                return "its byte strings run past the values";
            memcpy(&len, body + at, sizeof(len));
            at += static_cast<int64_t>(sizeof(len));
            if (len < 0 || len > nmapoff - at) return "a byte string's length leads past the values";
            at += len;
        }
    }
    return at == nmapoff ? nullptr : "bytes are left over after its last value";
}

// Any bytes as CSV.
//
//   byte 0       the delimiter
//   byte 1       the size of a block, so that rows are cut by blocks at every place
//   the rest     the text
//
// Demanded: the rows, fields and line numbers are those that a reader makes that goes byte by byte, with the same
// rules in their plainest form, and a text is refused exactly when that one refuses it; the fast index is the
// plain one; a type that is guessed from the fields reads them all.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_file.h"
#include "rows/value.h"
#include "tools/csv.h"
#include "tools/schema.h"
#include "tools/tool.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
struct plain_t {
    std::string text;  // with a line feed at its end, unless it is empty
    char delim;
    size_t at = 0;
    int64_t line = 1;
    bool bad = false;
};
struct plain_row_t {
    int64_t line;
    std::vector<std::pair<bool, std::string>> field;  // quoted, and the text
};
}  // namespace

// The next row, or nothing at the end or for a text that is none.
static std::optional<plain_row_t> plain_next(plain_t* p) {
    const std::string& text = p->text;
    if (p->at >= text.size()) return std::nullopt;
    plain_row_t row{.line = p->line, .field = {}};
    for (;;) {
        std::string field;
        const bool quoted = text[p->at] == '"';
        if (quoted) {
            for (p->at++;; p->at++) {
                if (p->at >= text.size()) {
                    p->bad = true;
                    return std::nullopt;
                }
                if (text[p->at] == '"' && text[++p->at] != '"') break;
                if (text[p->at] == '\n') p->line++;
                field += text[p->at];
            }
            // The return of a line end that comes right after the quote belongs to that.
            if (text[p->at] == '\r' && text[p->at + 1] == '\n') p->at++;
        } else {
            while (text[p->at] != p->delim && text[p->at] != '\n') field += text[p->at++];
            if (text[p->at] == '\n' && field.ends_with('\r')) field.pop_back();
        }
        row.field.emplace_back(quoted, std::move(field));
        const char end = text[p->at++];
        if (end == p->delim) continue;
        if (end == '\n') {
            p->line++;
            return row;
        }
        p->bad = true;  // something after a closing quote
        return std::nullopt;
    }
}

static void check_index(const std::string& padded, size_t size, char delim) {
    std::vector<uint32_t> fast(size + 64), plain(size + 64);
    bool fast_nul = false, plain_nul = false;
    const size_t n = csv_index(padded.data(), 0, size, delim, fast.data(), &fast_nul);
    const size_t m = csv_index_plain(padded.data(), 0, size, delim, plain.data(), &plain_nul);
    fast.resize(n);
    plain.resize(m);
    demand(fast == plain && (fast_nul || !plain_nul), "the fast index is another");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    constexpr char DELIMS[] = {',', ';', '\t', '|'};
    const char delim = DELIMS[data[0] % sizeof(DELIMS)];
    std::string_view text(reinterpret_cast<const char*>(data) + 2, size - 2);
    check_index(std::string(text) + std::string(CSV_PADSZ, '\0'), text.size(), delim);

    const fuzz::memory_file_t file(data + 2, size - 2);
    demand(lseek(file.fd(), 0, SEEK_SET) == 0, "a file in memory cannot be read again");
    csv_t csv;
    csv_open(&csv, file.fd(), "input", delim, data[1] % 2 ? size_t{CSV_BLOCKSZ} : size_t{1} + data[1]);
    if (text.starts_with("\xef\xbb\xbf")) text.remove_prefix(3);
    plain_t plain{.text = std::string(text), .delim = delim};
    if (!text.empty() && text.back() != '\n') plain.text += '\n';
    std::vector<schema_guess_t> guess;
    std::vector<std::vector<std::string>> seen;
    for (;;) {
        bool more = false, refused = false;
        try {
            more = csv_next(&csv);
        } catch (const tool_error& error) {
            demand(*error.what() != '\0', "a failure without words");
            refused = true;
        }
        const std::optional<plain_row_t> row = plain_next(&plain);
        demand(refused == plain.bad, refused ? "a sound text is refused" : "a broken text is taken");
        demand(refused || more == row.has_value(), "another number of rows");
        if (!more || refused) break;
        demand(csv.line == row->line, "a row on another line");
        demand(csv.nfield == row->field.size(), "another number of fields");
        guess.resize(std::max(guess.size(), csv.nfield));
        seen.resize(guess.size());
        for (size_t i = 0; i < csv.nfield; i++) {
            const csv_field_t& f = csv.field[i];
            const auto& [quoted, want] = row->field[i];
            demand(f.quoted == quoted && std::string_view(f.ptr, f.len) == want, "another field");
            demand(f.ptr[f.len] == '\0', "a field without its NUL");
            if (want.empty() || want.find('\0') != std::string::npos) continue;  // NULL, and what no value is
            schema_guess_add(&guess[i], want);
            if (seen[i].size() < 16) seen[i].push_back(want);
        }
    }
    for (size_t i = 0; i < guess.size(); i++) {
        const cvn_typ_t typ = schema_guess_type(guess[i]);
        for (const std::string& s : seen[i]) {
            rows::value_t value;
            demand(rows::value_from_text(&value, s, typ) == nullptr,
                   "a guessed type does not read its values");
        }
    }
    return 0;
}

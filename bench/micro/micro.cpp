#include "bench/micro/micro.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "bench/guard.h"

namespace {

// Removes the folder and all in it when the program ends.
struct folder_t {
    std::string path;
    folder_t() {
        const char* tmp = getenv("TMPDIR");
        path = std::string(tmp && *tmp ? tmp : "/tmp") + "/colvane-bench-XXXXXX";
        if (!mkdtemp(path.data())) must(-1, "temporary folder");
    }
    ~folder_t() {
        std::error_code ignored;  // nothing is left to do with it
        std::filesystem::remove_all(path, ignored);
    }
};

struct random_t {  // splitmix64
    uint64_t state;
    uint64_t next() {
        uint64_t z = (state += UINT64_C(0x9e3779b97f4a7c15));
        z = (z ^ (z >> 30)) * UINT64_C(0xbf58476d1ce4e5b9);
        z = (z ^ (z >> 27)) * UINT64_C(0x94d049bb133111eb);
        return z ^ (z >> 31);
    }
    int below(int n) { return static_cast<int>((next() >> 33) % static_cast<uint64_t>(n)); }
};

}  // namespace

static decDouble hundredths(int v) {
    char text[32];
    snprintf(text, sizeof(text), "%d.%02d", v / 100, v % 100);
    decDouble d;
    must(cvn_dec64_from_string(&d, text), text);
    return d;
}

static cvn_datum_t blank() {
    cvn_datum_t d;
    memset(&d, 0, sizeof(d));
    return d;
}

constexpr const char* WORDS[] = {"amber",  "basket",  "careful", "depot",  "evenly", "final",
                                 "gently", "harbour", "ironic",  "kettle", "ledger", "market",
                                 "of",     "quick",   "the",     "upon"};

void must(int rc, const char* what, int want) {
    if (rc == want) return;
    fprintf(stderr, "benchmark: %s: code %d: %s\n", what, rc, strerror(errno));
    exit(1);
}

double now() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

std::string temp_path(const char* name) {
    static const folder_t folder;
    return folder.path + "/" + name;
}

const char TABLE_COLDEF[] =
    "orderkey int64 -z, partkey int32, suppkey int32, linenumber int16 -z, quantity dec64 -z, "
    "price double -z, discount double -z, tax double -z, flag cstr -z, status cstr -z, "
    "shipped date -z, committed date -z, received date -z, mode cstr -z, comment cstr -z";

rows_t table_rows(int64_t nrow, int64_t first, int64_t total) {
    static constexpr const char* MODES[] = {"AIR", "FOB", "MAIL", "RAIL", "REG AIR", "SHIP", "TRUCK"};
    random_t random{20240229 + static_cast<uint64_t>(first)};
    std::vector<decDouble> quantity;
    for (int i = 1; i <= 50; i++) quantity.push_back(hundredths(i * 100));
    rows_t rows;
    rows.ncol = TABLE_NCOL;
    rows.nrow = nrow;
    rows.datum.assign(static_cast<size_t>(nrow) * TABLE_NCOL, blank());
    rows.isnull.assign(static_cast<size_t>(nrow) * TABLE_NCOL, 0);
    rows.texts.resize(static_cast<size_t>(nrow) * 64);
    for (int64_t r = 0; r < nrow; r++) {
        cvn_datum_t* d = &rows.datum[static_cast<size_t>(r) * TABLE_NCOL];
        char* text = &rows.texts[static_cast<size_t>(r) * 64];
        const int amount = 1 + random.below(50), part = 1 + random.below(200000);
        const int day =
            8035 + static_cast<int>((first + r) * 2406 / std::max(total, nrow)) + 1 + random.below(30);
        d[0].I = (first + r) / 4 * 4 + 1;
        d[1].i = part;
        d[2].i = 1 + random.below(10000);
        d[3].s = static_cast<int16_t>(1 + r % 4);
        d[4].dec64 = quantity[static_cast<size_t>(amount) - 1];
        d[5].F = amount * (90000 + part * 19 % 110001) / 100.0;
        d[6].F = random.below(11) / 100.0;
        d[7].F = random.below(9) / 100.0;
        text[0] = "ANR"[random.below(3)];
        text[2] = day < 9298 ? 'F' : 'O';
        d[8].t = text;
        d[9].t = text + 2;
        d[10].i = day;
        d[11].i = day + random.below(60);
        d[12].i = day + 1 + random.below(30);
        d[13].t = MODES[random.below(7)];
        d[14].t = text + 4;
        const int len = 10 + random.below(34);
        for (int k = 0; k < len;)
            k += snprintf(text + 4 + k, static_cast<size_t>(len - k) + 1, "%s ", WORDS[random.below(16)]);
        text[4 + len] = '\0';
        rows.nbyte +=
            8 + 4 + 4 + 2 + 4 * 8 + 2 + 2 + 3 * 4 + static_cast<int64_t>(strlen(d[13].t)) + 1 + len + 1;
    }
    return rows;
}

rows_t typed_rows(cvn_typ_t typ, int64_t nrow, bool nulls) {
    random_t random{static_cast<uint64_t>(typ) + 1};
    rows_t rows;
    rows.ncol = 1;
    rows.nrow = nrow;
    rows.datum.assign(static_cast<size_t>(nrow), blank());
    rows.isnull.assign(static_cast<size_t>(nrow), 0);
    rows.texts.resize(static_cast<size_t>(nrow) * 24);
    std::vector<cvn_datum_t> decimals(1000, blank());
    for (int i = 0; i < 1000; i++) {
        char text[32];
        snprintf(text, sizeof(text), "%d.%02d", random.below(100000), random.below(100));
        if (cvn_storage(typ) == CVN_TYP_DEC128)
            must(cvn_dec128_from_string(&decimals[i].dec128, text), text);
        else
            must(cvn_dec64_from_string(&decimals[i].dec64, text), text);
    }
    const int width = cvn_typlen(typ);
    for (int64_t r = 0; r < nrow; r++) {
        cvn_datum_t& d = rows.datum[r];
        char* text = &rows.texts[static_cast<size_t>(r) * 24];
        const int v = random.below(1000000);
        rows.isnull[r] = nulls && r % 8 == 3;
        switch (cvn_storage(typ)) {
            case CVN_TYP_BOOL: d.b = v & 1; break;
            case CVN_TYP_INT16: d.s = static_cast<int16_t>(v); break;
            case CVN_TYP_INT32: d.i = v; break;
            case CVN_TYP_INT64: d.I = v; break;
            case CVN_TYP_INT128: d.L = v; break;
            case CVN_TYP_FLOAT: d.f = static_cast<float>(v); break;
            case CVN_TYP_DOUBLE: d.F = v; break;
            case CVN_TYP_DEC64:
            case CVN_TYP_DEC128: d = decimals[static_cast<size_t>(v) % 1000]; break;
            case CVN_TYP_CSTR: d.t = text; break;
            default:
                d.a.ptr = text;
                d.a.len = snprintf(text, 24, "value %d", v);
                break;
        }
        if (width == -2) snprintf(text, 24, "value %d", v);
        if (width > 0)
            rows.nbyte += width;
        else if (width == -2)
            rows.nbyte += rows.isnull[r] ? 1 : static_cast<int64_t>(strlen(text)) + 1;
        else
            rows.nbyte += rows.isnull[r] ? 4 : 4 + d.a.len;
    }
    return rows;
}

void declare(cvn_t* writer, const char* coldef) {
    cvn_coldef_t* def = nullptr;
    int ndef = 0;
    must(cvn_coldef_parse(&def, &ndef, coldef), coldef);
    for (int c = 0; c < ndef; c++)
        must(cvn_create_column(writer, def[c].name, def[c].typ, def[c].zflag, def[c].nflag), def[c].name);
    free(def);
}

void append(cvn_t* writer, const rows_t& rows) {
    const cvn_datum_t* datum = rows.datum.data();
    static_assert(sizeof(bool) == sizeof(char));
    const bool* isnull = reinterpret_cast<const bool*>(rows.isnull.data());
    int rc = 0;
    for (int64_t r = 0; r < rows.nrow; r++) {
        rc |= cvn_append(writer, rows.ncol, datum, isnull);
        datum += rows.ncol;
        isnull += rows.ncol;
    }
    must(rc, "append");
}

std::string table_file(int64_t nrow) {
    static std::map<int64_t, std::string> files;
    std::string& path = files[nrow];
    if (!path.empty()) return path;
    path = temp_path(("table" + std::to_string(nrow) + ".cvn").c_str());
    cvn_t* writer = nullptr;
    must(cvn_create(&writer, path.c_str()), path.c_str());
    declare(writer, TABLE_COLDEF);
    constexpr int64_t STEP = 50000;  // rows in memory at a time
    for (int64_t first = 0; first < nrow; first += STEP)
        append(writer, table_rows(std::min(STEP, nrow - first), first, nrow));
    must(cvn_close(writer), path.c_str());
    return path;
}

int main(int argc, char** argv) {
    if (const char* why = guard_refusal()) {
        fprintf(stderr,
                "benchmark: %s: figures would mean nothing; configure with -DCMAKE_BUILD_TYPE=Release\n",
                why);
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

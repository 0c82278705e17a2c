// Appending rows, per type and for the 15-column table, and writing a full row group. The output goes to
// /dev/null, so that no disk is measured. An append is timed without the flush and a flush without the
// appends.
#include <stdio.h>

#include "bench/micro/micro.h"

static cvn_t* stream_writer(const char* coldef) {
    FILE* fp = fopen("/dev/null", "wb");
    if (!fp) must(-3, "/dev/null");
    cvn_t* writer = nullptr;
    must(cvn_create_stream(&writer, fp), "writer");
    declare(writer, coldef);
    return writer;
}

static void count(benchmark::State& state, const rows_t& rows) {
    state.SetItemsProcessed(state.iterations() * rows.nrow);
    state.SetBytesProcessed(state.iterations() * rows.nbyte);
}

// Few enough rows that no row group is cut.
static void time_append(benchmark::State& state, const char* coldef, const rows_t& rows) {
    for (auto _ : state) {
        cvn_t* writer = stream_writer(coldef);
        const double start = now();
        append(writer, rows);
        state.SetIterationTime(now() - start);
        must(cvn_close(writer), "close");
    }
    count(state, rows);
}

static void time_flush(benchmark::State& state, const char* coldef, const rows_t& rows) {
    for (auto _ : state) {
        cvn_t* writer = stream_writer(coldef);
        append(writer, rows);
        const double start = now();
        must(cvn_close(writer), "close");
        state.SetIterationTime(now() - start);
    }
    count(state, rows);
}

static void append_type(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    const std::string coldef = std::string("v ") + cvn_typ_str(typ);
    time_append(state, coldef.c_str(), typed_rows(typ, 100000, nulls));
}

static void append_table(benchmark::State& state) { time_append(state, TABLE_COLDEF, table_rows(100000)); }
BENCHMARK(append_table)->UseManualTime()->Unit(benchmark::kMillisecond);

static void flush_table(benchmark::State& state) { time_flush(state, TABLE_COLDEF, table_rows(300000)); }
BENCHMARK(flush_table)->UseManualTime()->Unit(benchmark::kMillisecond);

static void flush_type(benchmark::State& state, cvn_typ_t typ) {
    const std::string coldef = std::string("v ") + cvn_typ_str(typ) + " -z";
    time_flush(state, coldef.c_str(), typed_rows(typ, 300000, false));
}

[[maybe_unused]] const bool registered = [] {
    static constexpr cvn_typ_t TYPES[] = {CVN_TYP_BOOL,        CVN_TYP_INT16,           CVN_TYP_INT32,
                                          CVN_TYP_INT64,       CVN_TYP_INT128,          CVN_TYP_FLOAT,
                                          CVN_TYP_DOUBLE,      CVN_TYP_BYTEA,           CVN_TYP_CSTR,
                                          CVN_TYP_DEC64,       CVN_TYP_DEC128,          CVN_TYP_DATE,
                                          CVN_TYP_TIME_MILLIS, CVN_TYP_TIMESTAMP_MILLIS};
    for (const cvn_typ_t typ : TYPES) {
        const std::string name = cvn_typ_str(typ);
        benchmark::RegisterBenchmark(("append_" + name).c_str(), append_type, typ, false)->UseManualTime();
        benchmark::RegisterBenchmark(("append_" + name + "_nulls").c_str(), append_type, typ, true)
            ->UseManualTime();
    }
    static constexpr cvn_typ_t FLUSHED[] = {CVN_TYP_INT32, CVN_TYP_DOUBLE, CVN_TYP_CSTR, CVN_TYP_DEC64};
    for (const cvn_typ_t typ : FLUSHED)
        benchmark::RegisterBenchmark((std::string("flush_") + cvn_typ_str(typ)).c_str(), flush_type, typ)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    return true;
}();

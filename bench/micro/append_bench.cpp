// Appending rows, per type and for the 15-column table, and writing a full row group. The output goes to
// /dev/null, so that no disk is measured. An append is timed without the flush and a flush without the
// appends.
#include <cstdio>

#include "bench/micro/micro.h"

namespace {

cvn_t* stream_writer(const char* coldef) {
    FILE* fp = fopen("/dev/null", "wb");
    if (!fp) must(-3, "/dev/null");
    cvn_t* writer = nullptr;
    must(cvn_create_stream(&writer, fp), "writer");
    declare(writer, coldef);
    return writer;
}

void count(benchmark::State& state, const rows_t& rows) {
    state.SetItemsProcessed(state.iterations() * rows.nrow);
    state.SetBytesProcessed(state.iterations() * rows.nbyte);
}

// Few enough rows that no row group is cut.
void time_append(benchmark::State& state, const char* coldef, const rows_t& rows) {
    for (auto _ : state) {
        cvn_t* writer = stream_writer(coldef);
        const double start = now();
        append(writer, rows);
        state.SetIterationTime(now() - start);
        must(cvn_close(writer), "close");
    }
    count(state, rows);
}

void time_flush(benchmark::State& state, const char* coldef, const rows_t& rows) {
    for (auto _ : state) {
        cvn_t* writer = stream_writer(coldef);
        append(writer, rows);
        const double start = now();
        must(cvn_close(writer), "close");
        state.SetIterationTime(now() - start);
    }
    count(state, rows);
}

void append_type(benchmark::State& state, cvn_typ_t typ, bool nulls) {
    const std::string coldef = std::string("v ") + cvn_typ_str(typ);
    time_append(state, coldef.c_str(), typed_rows(typ, 100000, nulls));
}

void append_table(benchmark::State& state) { time_append(state, TABLE_COLDEF, table_rows(100000)); }
BENCHMARK(append_table)->UseManualTime()->Unit(benchmark::kMillisecond);

void flush_table(benchmark::State& state) { time_flush(state, TABLE_COLDEF, table_rows(300000)); }
BENCHMARK(flush_table)->UseManualTime()->Unit(benchmark::kMillisecond);

void flush_type(benchmark::State& state, cvn_typ_t typ) {
    const std::string coldef = std::string("v ") + cvn_typ_str(typ) + " -z";
    time_flush(state, coldef.c_str(), typed_rows(typ, 300000, false));
}

[[maybe_unused]] const bool registered = [] {
    for (const cvn_typ_t typ :
         {int(CVN_TYP_BOOL), int(CVN_TYP_INT16), int(CVN_TYP_INT32), int(CVN_TYP_INT64), int(CVN_TYP_INT128),
          int(CVN_TYP_FLOAT), int(CVN_TYP_DOUBLE), int(CVN_TYP_BYTEA), int(CVN_TYP_CSTR), int(CVN_TYP_DEC64),
          int(CVN_TYP_DEC128), int(CVN_TYP_DATE), int(CVN_TYP_TIME_MILLIS), int(CVN_TYP_TIMESTAMP_MILLIS)}) {
        const std::string name = cvn_typ_str(typ);
        benchmark::RegisterBenchmark(("append_" + name).c_str(), append_type, typ, false)->UseManualTime();
        benchmark::RegisterBenchmark(("append_" + name + "_nulls").c_str(), append_type, typ, true)
            ->UseManualTime();
    }
    for (const cvn_typ_t typ :
         {int(CVN_TYP_INT32), int(CVN_TYP_DOUBLE), int(CVN_TYP_CSTR), int(CVN_TYP_DEC64)})
        benchmark::RegisterBenchmark((std::string("flush_") + cvn_typ_str(typ)).c_str(), flush_type, typ)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    return true;
}();

}  // namespace

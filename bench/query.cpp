// A scan over the network, decoded: what a client gets from a daemon, rows per second.
#include <stdio.h>

#include <string>
#include <vector>

#include "bench/cvn_bench.h"
#include "clients/cpp/client.h"

void query_url(const char* url, int njob, const std::vector<std::string>& columns) {
    kelp_error_t err;
    kelp_query_t query;
    query.column = columns;
    query.njob = njob;
    if (kelp_url_parse(&query.url, url, &err) != 0) fail("%s: %s", url, err.text);
    const moment_t start = now();
    kelp_scan_t* scan = nullptr;
    if (kelp_scan_open(&scan, query, kelp_opt_t{}, &err) != 0) fail("%s: %s", url, err.text);
    int64_t nrow = 0;
    int rc;
    for (;;) {
        kelp_batch_t* batch = nullptr;
        rc = kelp_scan_next(scan, &batch, &err);
        if (rc != 0) break;
        nrow += batch->nrow;
        kelp_batch_free(batch);
    }
    if (rc != KELP_END) fail("%s: %s", url, err.text);
    kelp_scan_stat_t stat;
    kelp_scan_stat(scan, &stat);
    kelp_scan_close(scan);
    const moment_t end = now();
    if (nrow != stat.total_nrow)
        fail("%s: %lld rows instead of %lld", url, static_cast<long long>(nrow),
             static_cast<long long>(stat.total_nrow));
    printf("seconds=%.6f cpu=%.6f rows=%lld stored=%lld decoded=%lld\n", end.seconds - start.seconds,
           end.cpu - start.cpu, static_cast<long long>(nrow), static_cast<long long>(stat.zbyte),
           static_cast<long long>(stat.nbyte));
}

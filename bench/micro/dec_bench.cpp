// Decimals from text and their order: what a writer does once for every field and twice for every value.
#include <stdio.h>

#include <string>
#include <vector>

#include "bench/micro/micro.h"

constexpr int NVALUE = 1024;

// Amounts with two places, as tables mostly hold.
static std::vector<std::string> amounts() {
    std::vector<std::string> texts;
    for (int i = 0; i < NVALUE; i++) {
        char text[32];
        snprintf(text, sizeof(text), "%d.%02d", i * 7919 % 100000, i % 100);
        texts.emplace_back(text);
    }
    return texts;
}

template <class T, int convert(T*, const char*)>
static void from_string(benchmark::State& state) {
    const std::vector<std::string> texts = amounts();
    int64_t nbyte = 0;
    for (const std::string& text : texts) nbyte += static_cast<int64_t>(text.size());
    T d;
    for (auto _ : state)
        for (const std::string& text : texts) {
            benchmark::DoNotOptimize(convert(&d, text.c_str()));
            benchmark::DoNotOptimize(d);
        }
    state.SetItemsProcessed(state.iterations() * NVALUE);
    state.SetBytesProcessed(state.iterations() * nbyte);
}

template <class T, int convert(T*, const char*), int compare(const T*, const T*)>
static void cmp(benchmark::State& state) {
    std::vector<T> values;
    for (const std::string& text : amounts())
        must(convert(&values.emplace_back(), text.c_str()), text.c_str());
    for (auto _ : state)
        for (int i = 0; i < NVALUE; i++)
            benchmark::DoNotOptimize(compare(&values[i], &values[static_cast<size_t>(i * 5 + 1) % NVALUE]));
    state.SetItemsProcessed(state.iterations() * NVALUE);
    state.SetBytesProcessed(state.iterations() * NVALUE * static_cast<int64_t>(sizeof(T)) * 2);
}

static void dec64_from_string(benchmark::State& s) { from_string<decDouble, cvn_dec64_from_string>(s); }
static void dec128_from_string(benchmark::State& s) { from_string<decQuad, cvn_dec128_from_string>(s); }
static void dec64_cmp(benchmark::State& s) { cmp<decDouble, cvn_dec64_from_string, cvn_dec64_cmp>(s); }
static void dec128_cmp(benchmark::State& s) { cmp<decQuad, cvn_dec128_from_string, cvn_dec128_cmp>(s); }
BENCHMARK(dec64_from_string);
BENCHMARK(dec128_from_string);
BENCHMARK(dec64_cmp);
BENCHMARK(dec128_cmp);

static void dec64_to_string(benchmark::State& state) {
    std::vector<decDouble> values;
    for (const std::string& text : amounts())
        must(cvn_dec64_from_string(&values.emplace_back(), text.c_str()), text.c_str());
    char text[CVN_DEC64_STRSZ];
    for (auto _ : state)
        for (const decDouble& d : values) {
            cvn_dec64_to_string(text, &d);
            benchmark::DoNotOptimize(text);
        }
    state.SetItemsProcessed(state.iterations() * NVALUE);
}
BENCHMARK(dec64_to_string);

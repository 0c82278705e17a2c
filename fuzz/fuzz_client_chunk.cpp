// Any bytes as a chunked body. How they are cut into pieces on the way changes nothing, and no byte is handed
// on that did not arrive.
#include <algorithm>

#include "fuzz/fuzz_client.h"

using namespace kelp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

struct result_t {
    std::string body;
    std::string verdict;
};

}  // namespace

static int take(void* arg, const char* p, size_t n, kelp_error_t*) {
    static_cast<std::string*>(arg)->append(p, n);
    return 0;
}

static result_t feed(std::string_view input, unsigned seed) {
    result_t r;
    chunk_t ck;
    kelp_error_t err{};
    int code = fuzz::in_pieces(
        input, seed, [&](const char* p, size_t n) { return chunk_feed(&ck, p, n, take, &r.body, &err); });
    if (code == 0) code = chunk_end(&ck, &err);
    r.verdict = code == 0 ? "whole" : fuzz::error_text(code, err);
    return r;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const result_t once = feed(input, 0);
    fuzz::demand(once.body.size() <= size, "more bytes come out than went in");
    for (const unsigned seed : {1u, 77u}) {
        const result_t again = feed(input, seed);
        fuzz::demand(again.verdict == once.verdict, "pieces change the verdict on a body");
        fuzz::demand(again.body == once.body, "pieces change a body");
    }
    return 0;
}

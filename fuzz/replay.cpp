// Runs a fuzz target over files: each argument is an input, or a folder of inputs. Where there is no
// libFuzzer this is what ctest calls with the corpus. Prints how many inputs it ran; none at all is a
// failure.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void run(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    // A copy of exactly the input's size, so that a read past it is seen.
    const std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

int main(int argc, char** argv) {
    int n = 0;
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            run(argv[i]);
            n++;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            run(entry.path());
            n++;
        }
    }
    printf("%d inputs\n", n);
    return n > 0 ? 0 : 1;
}

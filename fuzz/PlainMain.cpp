// Feeds the files of the folder argv[1] to a fuzz target, without a fuzzer: the corpus as a test.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "Fuzz.h"

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    if (argc == 2)
        std::ranges::copy(std::filesystem::directory_iterator(argv[1]), std::back_inserter(files));
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::cout << file.filename().string() << std::endl;  // the last one is the culprit
        std::ifstream in(file, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}

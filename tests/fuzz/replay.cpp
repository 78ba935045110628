// Runs a fuzz target once on each file of a corpus. A finding ends the process, as it ends the
// fuzzer. Status 1 when the corpus is empty.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::string read(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) {
        std::fprintf(stderr, "usage: %s CORPUS-FOLDER\n", arguments[0]);
        return 2;
    }
    const std::filesystem::directory_iterator folder(arguments[1]);
    std::vector<std::filesystem::path> files(begin(folder), end(folder));
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& file : files) {
        std::printf("%s\n", file.filename().c_str());
        std::fflush(stdout);
        const std::string input = read(file);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    return files.empty() ? 1 : 0;
}

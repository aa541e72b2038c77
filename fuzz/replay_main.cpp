// Replays files (or every file of the folders) given on the command line through the fuzz entry
// point. Used where libFuzzer is not available, so gcc and sanitizer builds run the seed corpus.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (std::filesystem::is_directory(argv[i], ec)) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
        } else if (std::filesystem::exists(argv[i], ec)) {
            files.push_back(argv[i]);
        }
    }
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    // An empty input is always worth one run: parsers must take it.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::printf("replayed %zu inputs\n", files.size());
    return 0;
}

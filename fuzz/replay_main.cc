// Runs a fuzz target over input files and directories of them, for builds
// without libFuzzer (the corpus replay in the ordinary test suite).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto &entry : std::filesystem::directory_iterator(argv[i])) inputs.push_back(entry.path());
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  for (const auto &p : inputs) {
    std::ifstream f(p, std::ios::binary);
    if (!f) {
      std::fprintf(stderr, "cannot read %s\n", p.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%zu inputs run\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}

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
  std::vector<std::filesystem::path> inputs(argv + 1, argv + argc);
  for (size_t i = 0; i < inputs.size(); ++i) {
    if (std::filesystem::is_directory(inputs[i])) {
      inputs.insert(inputs.end(), std::filesystem::directory_iterator(inputs[i]), {});
      continue;
    }
    std::ifstream f(inputs[i], std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (!f) {
      std::fprintf(stderr, "cannot read %s\n", inputs[i].c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return inputs.empty() ? 1 : 0;
}

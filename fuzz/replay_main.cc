// Runs a fuzz target over files and directories of inputs, for builds
// without libFuzzer (the corpus replay in the ordinary test suite).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int run_file(const std::filesystem::path &p) {
  std::ifstream f(p, std::ios::binary);
  if (!f) {
    std::fprintf(stderr, "cannot read %s\n", p.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int failed = 0;
  int ran = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto &entry : std::filesystem::directory_iterator(arg)) {
        if (!entry.is_regular_file()) continue;
        failed += run_file(entry.path());
        ++ran;
      }
    } else {
      failed += run_file(arg);
      ++ran;
    }
  }
  std::printf("%d inputs run\n", ran);
  return failed != 0 || ran == 0 ? 1 : 0;
}

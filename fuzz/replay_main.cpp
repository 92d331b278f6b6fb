// Runs a fuzz target over saved inputs without libFuzzer: every file named on
// the command line, or found in a directory named there.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv) __attribute__((weak));

static void run_file(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    std::exit(1);
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

int main(int argc, char **argv) {
  // Some targets change directory when they start: resolve the paths first.
  std::vector<std::filesystem::path> args;
  for (int i = 1; i < argc; ++i) args.push_back(std::filesystem::absolute(argv[i]));
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  size_t count = 0;
  for (const auto &arg : args) {
    if (std::filesystem::is_directory(arg)) {
      for (const auto &entry : std::filesystem::recursive_directory_iterator(arg))
        if (entry.is_regular_file()) run_file(entry.path()), ++count;
    } else {
      run_file(arg), ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count > 0 ? 0 : 1;
}

// Runs a fuzz target's entry point over kept inputs, without libFuzzer, so
// that the test suite checks every target's seeds and past findings in the
// sanitized build.
//
// Usage: replay_NAME NAME DIR... replays the files of every folder in a DIR
// that is named NAME or a prefix of it ending before "_" (the seeds in
// corpus/json serve json_parse and json_roundtrip). Exits 77, reported as a
// skip, when there is nothing to replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fs = std::filesystem;

namespace {

bool serves(const std::string &folder, const std::string &target) {
  return target == folder || target.rfind(folder + "_", 0) == 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s NAME DIR...\n", argv[0]);
    return 2;
  }
  if (LLVMFuzzerInitialize != nullptr)
    LLVMFuzzerInitialize(&argc, &argv);
  const std::string target = argv[1];
  std::vector<fs::path> inputs;
  for (int i = 2; i < argc; i++) {
    std::error_code missing; // a DIR that does not exist holds nothing
    for (const fs::directory_entry &folder : fs::directory_iterator(argv[i], missing)) {
      if (!folder.is_directory() || !serves(folder.path().filename(), target))
        continue;
      for (const fs::directory_entry &file : fs::directory_iterator(folder.path()))
        if (file.is_regular_file())
          inputs.push_back(file.path());
    }
  }
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path &path : inputs) {
    // Named first, so that a failure's report follows the input's name.
    fprintf(stderr, "replaying %s\n", path.c_str());
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  }
  printf("%s: %zu inputs replayed\n", target.c_str(), inputs.size());
  return inputs.empty() ? 77 : 0;
}

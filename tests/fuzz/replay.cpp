// Runs a fuzz target on the files given, without libFuzzer: its C++ library isn't instrumented for
// MemorySanitizer.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  static std::array<uint8_t, 65536> input;
  for (int i = 1; i < argc; ++i) {
    FILE* file = fopen(argv[i], "rb");
    if (file == nullptr) {
      perror(argv[i]);
      return EXIT_FAILURE;
    }
    const size_t size = fread(input.data(), 1, input.size(), file);
    fclose(file);
    LLVMFuzzerTestOneInput(input.data(), size);
  }
  printf("%d inputs replayed\n", argc - 1);
  return EXIT_SUCCESS;
}

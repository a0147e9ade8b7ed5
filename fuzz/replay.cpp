// Feeds a target with the files of its corpus, in a build without the fuzzer.
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "check.h"

extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<uint8_t> content_of(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  check(in.is_open());
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
    return 2;
  }
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) files.push_back(entry);
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    fprintf(stderr, "%s: an empty corpus\n", argv[1]);
    return 1;
  }
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  for (const auto& file : files) {
    printf("%s\n", file.filename().c_str());  // the last one is what broke the target
    fflush(stdout);
    const std::vector<uint8_t> bytes = content_of(file);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
}

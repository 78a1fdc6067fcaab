// regression.cpp - runs a fuzz target without libFuzzer, as a test: on its seeds, on prefixes of
// them, and on seeds with a few bytes changed. The same inputs in every run.
//
//   NAME_regression              run; a target that does not like an input ends the program
//   NAME_regression --write DIR  write the seeds as files, for libFuzzer to begin with
//   NAME_regression FILE...      run these inputs, for example what libFuzzer has found
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "seeds.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using plexa_fuzz::Bytes;

constexpr size_t kPrefixes = 32;
constexpr int kMutants = 100;

// Numbers at the edges of what fields of any width hold.
constexpr uint64_t kEdges[] = {0,          1,          0x7f,       0x80,       0xff,
                               0x7fff,     0x8000,     0xffff,     0x7fffffff, 0x80000000,
                               0xffffffff, 0xfffffffe, 1ull << 62, ~0ull,      ~0ull >> 1,
                               1ull << 63, 31,         32,         188,        0x47};

size_t runs = 0;

void run(const Bytes &input) {
  ++runs;
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

void run_prefixes(const Bytes &seed) {
  const size_t step = std::max<size_t>(1, seed.size() / kPrefixes);
  for (size_t size = 0; size < seed.size(); size += step) {
    run(Bytes(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(size)));
  }
}

void mutate(Bytes &input, std::mt19937 &random) {
  const size_t at = random() % input.size();
  const uint64_t value = random() % 2 ? kEdges[random() % std::size(kEdges)] : random();
  const size_t width = std::min(size_t{1} << random() % 4, input.size() - at);
  std::memcpy(input.data() + at, &value, width);
}

void run_mutants(const Bytes &seed) {
  if (seed.empty()) return;
  std::mt19937 random(20110916);
  for (int i = 0; i < kMutants; ++i) {
    Bytes mutant = seed;
    for (size_t changes = 1 + random() % 8; changes > 0; --changes) mutate(mutant, random);
    run(mutant);
  }
}

int run_seeds() {
  for (const Bytes &seed : plexa_fuzz::seeds()) {
    run(seed);
    run_prefixes(seed);
    run_mutants(seed);
  }
  std::printf("%zu inputs\n", runs);
  return runs > 0 ? 0 : 1;
}

int write_seeds(const std::string &folder) {
  int number = 0;
  for (const Bytes &seed : plexa_fuzz::seeds()) {
    std::ofstream out(folder + "/seed-" + std::to_string(number++), std::ios::binary);
    out.write(reinterpret_cast<const char *>(seed.data()),
              static_cast<std::streamsize>(seed.size()));
    if (!out.flush()) {
      std::fprintf(stderr, "cannot write into %s\n", folder.c_str());
      return 1;
    }
  }
  return 0;
}

int run_files(char **paths, char **end) {
  for (; paths != end; ++paths) {
    std::ifstream in(*paths, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", *paths);
      return 1;
    }
    run(Bytes(std::istreambuf_iterator<char>(in), {}));
  }
  return 0;
}

}  // namespace

int main(int count, char **arguments) {
  if (count == 1) return run_seeds();
  if (count == 3 && std::strcmp(arguments[1], "--write") == 0) return write_seeds(arguments[2]);
  return run_files(arguments + 1, arguments + count);
}

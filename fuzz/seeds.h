// seeds.h - sound inputs of one target, for its regression program and as libFuzzer's first corpus.
//
// NAME_seeds.cpp defines seeds() for the target of NAME_fuzz.cpp.
#pragma once

#include <cstdint>
#include <vector>

namespace plexa_fuzz {

using Bytes = std::vector<uint8_t>;

std::vector<Bytes> seeds();

}  // namespace plexa_fuzz

#pragma once

#include <cstddef>
#include <cstdint>

// What the fuzzer, or the corpus runner in its place, calls.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Optional: called once before the first input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

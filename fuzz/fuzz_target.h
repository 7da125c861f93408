// What every fuzz target defines, and how it says that a property does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#define FUZZ_EXPECT(property)                           \
  do {                                                  \
    if (!(property)) {                                  \
      std::cerr << "does not hold: " #property << '\n'; \
      std::abort();                                     \
    }                                                   \
  } while (false)

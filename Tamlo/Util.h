// Small stateless helpers: the library's standard string hashes and a compact
// text form of 32-bit values. All are pure functions, safe from any thread.
#pragma once

#include <cstdint>
#include <string>

namespace Tamlo::Util {

// Word-wise FNV-1a (see HashMix.h) from the standard offset basis. Not equal
// to byte-wise FNV-1a; stored hashes depend on this exact form.
uint32_t hash(std::string const& text);
uint32_t hash(void const* data, unsigned length);
uint64_t hash64(std::string const& text);
uint64_t hash64(void const* data, unsigned length);

// Always six characters from "A-Za-z0-9_=" (62 is '_', 63 is '='), six bits
// each, least significant group first, covering all 32 bits. No padding.
std::string base64Encode(unsigned value);

}  // namespace Tamlo::Util

// The stand-in's digest of received bytes (see stand_in_record.h).
//
// Four independent lanes over 8-byte words keep up with memory: the stand-in
// reads each uploaded array once, as a device copy would, and the digest
// must not make it slower than that. Each step, lane = rotl((lane ^ word) *
// odd, 31), is a bijection of the lane for a fixed word, so a change of any
// one word (or byte) always changes its lane and, through the final mix,
// the digest.
#include <cstdint>
#include <cstring>

#include "gpu_aligner_stand_in/stand_in_record.h"

namespace zorvane {
namespace gpu_stand_in {
namespace {

constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15ull;

inline std::uint64_t step(std::uint64_t lane, std::uint64_t word) {
  const std::uint64_t mixed = (lane ^ word) * kOdd;
  return (mixed << 31) | (mixed >> 33);
}

inline std::uint64_t wordAt(const unsigned char* p) {
  std::uint64_t w = 0;
  std::memcpy(&w, p, sizeof w);
  return w;
}

// Spreads every bit of h over the whole word (a bijection).
inline std::uint64_t finalMix(std::uint64_t h) {
  h ^= h >> 30;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 27;
  h *= 0x94D049BB133111EBull;
  return h ^ (h >> 31);
}

}  // namespace

void DigestStream::add(const void* bytes, std::size_t size) {
  const auto* p = static_cast<const unsigned char*>(bytes);
  std::size_t i = 0;
  for (; i + 32 <= size; i += 32) {
    for (int l = 0; l < 4; ++l) lanes_[l] = step(lanes_[l], wordAt(p + i + 8 * l));
  }
  for (; i + 8 <= size; i += 8) lanes_[0] = step(lanes_[0], wordAt(p + i));
  for (; i < size; ++i) lanes_[1] = step(lanes_[1], p[i]);
  size_ += size;
}

std::uint64_t DigestStream::result() const {
  std::uint64_t h = size_;
  for (const std::uint64_t lane : lanes_) h = finalMix(h ^ lane);
  return h;
}

std::uint64_t digestOf(const void* bytes, std::size_t size) {
  DigestStream digest;
  digest.add(bytes, size);
  return digest.result();
}

}  // namespace gpu_stand_in
}  // namespace zorvane

// Writes factor-data buffers, the flat form a user's MFA data is built from,
// and records where each piece landed so that tests can patch it.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mfatest {

constexpr uint32_t kTagsSection = 1;
constexpr uint32_t kDateSection = 2;

struct FactorBufferLayout {
  uint32_t numFactors = 0;
  uint32_t numPolicies = 0;
  uint32_t policyOffset = 0;
  // Buffer positions of each factor's entry, of each section's table entry
  // and each tag entry per factor (tags in list order), of each policy entry.
  std::vector<uint32_t> factorEntry;
  std::vector<std::vector<uint32_t>> sectionEntry;
  std::vector<std::vector<uint32_t>> tagEntry;
  std::vector<uint32_t> policyEntry;
};

class FactorBuffer {
public:
  using Tags = std::vector<std::pair<std::string, std::string>>;

  // Starts a new factor; the sections that follow belong to it.
  FactorBuffer &factor(std::string_view name);
  FactorBuffer &tags(const Tags &tags);
  FactorBuffer &date(std::string_view text) { return section(kDateSection, text); }
  // A section of any type holding bytes as they stand.
  FactorBuffer &section(uint32_t type, std::string_view bytes);
  // An empty name writes a policy entry with name length 0.
  FactorBuffer &policy(std::string_view name);

  std::string build(FactorBufferLayout *layout = nullptr) const;

private:
  struct Section {
    uint32_t type;
    std::string bytes;
    std::vector<uint32_t> tagStarts; // within bytes
  };
  std::vector<std::pair<std::string, std::vector<Section>>> factors_;
  std::vector<std::string> policies_;
};

// Overwrites an integer of the buffer in the machine's byte order.
template <typename T> void put(std::string &buffer, size_t position, T value) {
  if (position + sizeof(T) > buffer.size())
    throw std::out_of_range("patch beyond the buffer");
  memcpy(buffer.data() + position, &value, sizeof(T));
}

} // namespace mfatest
